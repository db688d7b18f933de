#include "platform/plist/Places.h"

#include <climits>
#include <cstring>
#include <memory>
#include <utility>

#include <expat.h>

namespace plist {

namespace {

class Walk {
public:
    Walk(XML_Parser parser, std::map<Path, Place>& places) : parser_{parser}, places_{places} {
        XML_SetUserData(parser, this);
        XML_SetElementHandler(
            parser, [](void* self, const char* name, const char**) { static_cast<Walk*>(self)->start(name); },
            [](void* self, const char* name) { static_cast<Walk*>(self)->end(name); });
        XML_SetCharacterDataHandler(parser, [](void* self, const char* text, int length) {
            auto& walk = *static_cast<Walk*>(self);
            if (walk.isInKey_) walk.path_.back().append(text, static_cast<std::size_t>(length));
        });
    }

private:
    // Containers around where the walk is; the path has one step for each.
    struct Container {
        bool isArray;
        std::size_t next = 0;
        Place key = {};
    };

    Place here() const { return {XML_GetCurrentLineNumber(parser_), XML_GetCurrentColumnNumber(parser_) + 1}; }

    void start(const char* name) {
        if (std::strcmp(name, "plist") == 0) return;
        isInKey_ = std::strcmp(name, "key") == 0 && !around_.empty();
        if (isInKey_) {
            path_.back().clear();
            around_.back().key = here();
            return;
        }
        const bool isElement = !around_.empty() && around_.back().isArray;
        if (isElement) path_.back() = std::to_string(around_.back().next++);
        places_.emplace(path_, around_.empty() || isElement ? here() : around_.back().key);
        if (!isContainer(name)) return;
        around_.push_back({std::strcmp(name, "array") == 0});
        path_.emplace_back();
    }

    void end(const char* name) {
        isInKey_ = false;
        if (!isContainer(name) || around_.empty()) return;
        around_.pop_back();
        path_.pop_back();
    }

    static bool isContainer(const char* name) {
        return std::strcmp(name, "dict") == 0 || std::strcmp(name, "array") == 0;
    }

    const XML_Parser parser_;
    std::map<Path, Place>& places_;
    std::vector<Container> around_;
    Path path_;
    bool isInKey_ = false;
};

}  // namespace

Places::Places(std::string_view bytes) {
    if (bytes.starts_with("bplist") || bytes.size() > INT_MAX / 4) return;
    const std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser{XML_ParserCreate(nullptr),
                                                                              &XML_ParserFree};
    if (!parser) return;
    const Walk walk{parser.get(), places_};
    XML_Parse(parser.get(), bytes.data(), static_cast<int>(bytes.size()), XML_TRUE);
}

std::optional<Place> Places::of(const Path& path) const {
    const auto found = places_.find(path);
    return found != places_.end() ? std::optional{found->second} : std::nullopt;
}

}  // namespace plist
