#include "vtd/Probes.h"

#include "platform/probe/Probe.h"

#define PROBE_TEXT_vtd "vtd"
#define PROBE_TEXT_client_new "client-new"
#define PROBE_TEXT_client_done "client-done"
#define PROBE_TEXT_request_input "request-input"
#define PROBE_TEXT_request "request"
#define PROBE_TEXT_request_output "request-output"
#define PROBE_TEXT_db_load "db-load"
#define PROBE_TEXT_discover_raw "discover-raw"
#define PROBE_TEXT_plugin_add "plugin-add"
#define PROBE_TEXT_plugin_remove "plugin-remove"
#define PROBE_TEXT_plugin_ready "plugin-ready"

PROBE_SEMAPHORE(vtd, client_new);
PROBE_SEMAPHORE(vtd, client_done);
PROBE_SEMAPHORE(vtd, request_input);
PROBE_SEMAPHORE(vtd, request);
PROBE_SEMAPHORE(vtd, request_output);
PROBE_SEMAPHORE(vtd, db_load);
PROBE_SEMAPHORE(vtd, discover_raw);
PROBE_SEMAPHORE(vtd, plugin_add);
PROBE_SEMAPHORE(vtd, plugin_remove);
PROBE_SEMAPHORE(vtd, plugin_ready);

namespace probes::site {

void clientNew(pid_t pid) {
    PROBE1(vtd, client_new, pid);
}

void clientDone(pid_t pid) {
    PROBE1(vtd, client_done, pid);
}

void requestInput(pid_t pid, const char* message) {
    PROBE2(vtd, request_input, pid, message);
}

void request(pid_t pid, const char* name) {
    PROBE2(vtd, request, pid, name);
}

void requestOutput(pid_t pid, const char* reply) {
    PROBE2(vtd, request_output, pid, reply);
}

void dbLoad(const char* domain, std::int64_t code) {
    PROBE2(vtd, db_load, domain, code);
}

void discoverRaw(std::size_t candidates) {
    PROBE1(vtd, discover_raw, candidates);
}

void pluginAdd(const char* path) {
    PROBE1(vtd, plugin_add, path);
}

void pluginRemove(const char* path, bool resolved) {
    PROBE2(vtd, plugin_remove, path, static_cast<int>(resolved));
}

void pluginReady(const char* uuid) {
    PROBE1(vtd, plugin_ready, uuid);
}

}  // namespace probes::site
