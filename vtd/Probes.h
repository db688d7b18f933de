#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

// The daemon's static trace probes: provider `vtd`, one function a probe. A disabled probe costs one load; a text is
// built, by the closure given for it, only while a tracer listens to its probe.
//
// Threading: any thread.

// One for each probe, raised by tracers while they listen. Hidden, so that reading one takes no detour.
#pragma GCC visibility push(hidden)
extern "C" {
extern volatile unsigned short vtd_client_new_semaphore;
extern volatile unsigned short vtd_client_done_semaphore;
extern volatile unsigned short vtd_request_input_semaphore;
extern volatile unsigned short vtd_request_semaphore;
extern volatile unsigned short vtd_request_output_semaphore;
extern volatile unsigned short vtd_db_load_semaphore;
extern volatile unsigned short vtd_discover_raw_semaphore;
extern volatile unsigned short vtd_plugin_add_semaphore;
extern volatile unsigned short vtd_plugin_remove_semaphore;
extern volatile unsigned short vtd_plugin_ready_semaphore;
}
#pragma GCC visibility pop

namespace probes {

// What fires once a tracer is known to listen: each is one probe site. Not called but through the functions below.
namespace site {
void clientNew(pid_t pid);
void clientDone(pid_t pid);
void requestInput(pid_t pid, const char* message);
void request(pid_t pid, const char* name);
void requestOutput(pid_t pid, const char* reply);
void dbLoad(const char* domain, std::int64_t code);
void discoverRaw(std::size_t candidates);
void pluginAdd(const char* path);
void pluginRemove(const char* path, bool resolved);
void pluginReady(const char* uuid);
}  // namespace site

// "client-new" (pid): a client was set up.
inline void clientNew(pid_t pid) {
    if (vtd_client_new_semaphore != 0) [[unlikely]]
        site::clientNew(pid);
}

// "client-done" (pid): a client is dead.
inline void clientDone(pid_t pid) {
    if (vtd_client_done_semaphore != 0) [[unlikely]]
        site::clientDone(pid);
}

// "request-input" (pid, text of the request message).
template <typename MakeText>
void requestInput(pid_t pid, MakeText&& text) {
    if (vtd_request_input_semaphore != 0) [[unlikely]]
        site::requestInput(pid, std::string{text()}.c_str());
}

// "request" (pid, request name).
template <typename MakeText>
void request(pid_t pid, MakeText&& name) {
    if (vtd_request_semaphore != 0) [[unlikely]]
        site::request(pid, std::string{name()}.c_str());
}

// "request-output" (pid, text of the reply).
template <typename MakeText>
void requestOutput(pid_t pid, MakeText&& text) {
    if (vtd_request_output_semaphore != 0) [[unlikely]]
        site::requestOutput(pid, std::string{text()}.c_str());
}

// "db-load" (error domain, error code): the annotation file could not be loaded.
inline void dbLoad(const std::string& domain, std::int64_t code) {
    if (vtd_db_load_semaphore != 0) [[unlikely]]
        site::dbLoad(domain.c_str(), code);
}

// "discover-raw" (number of candidates).
inline void discoverRaw(std::size_t candidates) {
    if (vtd_discover_raw_semaphore != 0) [[unlikely]]
        site::discoverRaw(candidates);
}

// "plugin-add" (path): a path of an "add" is about to be registered.
inline void pluginAdd(const std::string& path) {
    if (vtd_plugin_add_semaphore != 0) [[unlikely]]
        site::pluginAdd(path.c_str());
}

// "plugin-remove" (path, whether it is the canonical one): a path of a "remove" is about to be unregistered.
inline void pluginRemove(const std::string& path, bool resolved) {
    if (vtd_plugin_remove_semaphore != 0) [[unlikely]]
        site::pluginRemove(path.c_str(), resolved);
}

// "plugin-ready" (text of the plug-in's UUID): a plug-in of a "ready" is about to be prepared.
template <typename MakeText>
void pluginReady(MakeText&& uuid) {
    if (vtd_plugin_ready_semaphore != 0) [[unlikely]]
        site::pluginReady(std::string{uuid()}.c_str());
}

}  // namespace probes
