// XML property lists, read by expat's callbacks straight into the tree.
//
// An element is a container (array, dict), which the tree builder keeps on its stack, or a leaf, of which only one is
// open at a time: `leaf_` tells which, and its text gathers in `text_`. Anything else is refused where it is met; expat
// may make a few more callbacks after it was told to stop, which are passed over.

#include "platform/plist/FullXmlReader.h"

#include <sys/random.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>

#include <expat.h>

#include "platform/plist/ScalarText.h"
#include "platform/plist/TreeBuilder.h"
#include "platform/text/Format.h"

namespace plist {

namespace {

enum class Element : std::uint8_t {
    none,
    plist,
    array,
    dictionary,
    key,
    string,
    integer,
    real,
    date,
    data,
    isTrue,
    isFalse
};

Element elementNamed(std::string_view name) {
    static constexpr std::pair<std::string_view, Element> kElements[] = {
        {"key", Element::key},         {"string", Element::string}, {"dict", Element::dictionary},
        {"array", Element::array},     {"true", Element::isTrue},   {"false", Element::isFalse},
        {"integer", Element::integer}, {"real", Element::real},     {"date", Element::date},
        {"data", Element::data},       {"plist", Element::plist},
    };
    for (const auto& [known, element] : kElements) {
        if (name == known) return element;
    }
    return Element::none;
}

bool isBlank(std::string_view text) {
    return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

// A parser is kept by each thread, because making one costs as much as reading a small list. One that has read a large
// list is not, as it holds on to memory of that size.
class KeptParser {
public:
    explicit KeptParser(std::size_t bytes) : keep_{bytes <= kLargestKept} {
        if (kept().get() == nullptr || XML_ParserReset(kept().get(), nullptr) == XML_FALSE) {
            kept().reset(XML_ParserCreate(nullptr));
        }
        if (kept()) XML_SetHashSalt(kept().get(), salt());
    }
    KeptParser(const KeptParser&) = delete;
    KeptParser& operator=(const KeptParser&) = delete;
    ~KeptParser() {
        if (!keep_) kept().reset();
    }

    XML_Parser get() const { return kept().get(); }

private:
    static constexpr std::size_t kLargestKept = std::size_t{64} << 10;

    struct Free {
        void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
    };
    using Owned = std::unique_ptr<XML_ParserStruct, Free>;

    static Owned& kept() {
        static thread_local Owned parser;
        return parser;
    }

    // Expat would ask the kernel for a new one at each list.
    static unsigned long salt() {
        static const unsigned long value = [] {
            unsigned long random = 0;
            if (::getrandom(&random, sizeof random, 0) != ssize_t{sizeof random}) random = 0;  // expat makes its own
            return random;
        }();
        return value;
    }

    const bool keep_;
};

class Reader {
public:
    Reader(XML_Parser parser, const Limits& limits) : parser_{parser}, tree_{limits} {
        XML_SetUserData(parser, this);
        XML_SetElementHandler(
            parser,
            [](void* self, const char* name, const char** attributes) {
                static_cast<Reader*>(self)->start(name, attributes);
            },
            [](void* self, const char*) { static_cast<Reader*>(self)->end(); });
        XML_SetCharacterDataHandler(parser, [](void* self, const char* text, int length) {
            static_cast<Reader*>(self)->characters({text, static_cast<std::size_t>(length)});
        });
        XML_SetStartDoctypeDeclHandler(parser, [](void* self, const char*, const char*, const char*, int hasSubset) {
            if (hasSubset != 0) static_cast<Reader*>(self)->refuse({.what = "internal subset of declarations"});
        });
        // After a declaration that names a subset elsewhere, expat would drop unknown entities from the text.
        XML_SetSkippedEntityHandler(parser, [](void* self, const char*, int) {
            static_cast<Reader*>(self)->refuse({.what = "unknown entity"});
        });
    }

    value::Result<value::Value> read(std::string_view bytes) {
        const XML_Status status = XML_Parse(parser_, bytes.data(), static_cast<int>(bytes.size()), XML_TRUE);
        if (!error_ && status != XML_STATUS_OK) refuse({.what = XML_ErrorString(XML_GetErrorCode(parser_))});
        if (error_) return std::move(*error_);
        return tree_.takeRoot();
    }

private:
    void start(const char* name, const char** attributes) {
        if (error_) return;
        const Element element = elementNamed(name);
        if (element == Element::none) return refuse({.what = text::format("unknown element <{}>", name)});
        if (leaf_ != Element::none) return refuse({.what = text::format("<{}> inside a plain value", name)});
        if ((element == Element::plist) == insidePlist_)
            return refuse({.what = text::format("<{}> out of place", name)});
        const bool versioned =
            element == Element::plist && attributes[0] != nullptr && std::strcmp(attributes[0], "version") == 0;
        if (attributes[versioned ? 2 : 0] != nullptr) return refuse({.what = "unknown attribute"});
        switch (element) {
            case Element::plist: insidePlist_ = true; break;
            case Element::array: check(tree_.openArray()); break;
            case Element::dictionary: check(tree_.openDictionary()); break;
            default: leaf_ = element; text_.clear();
        }
    }

    void end() {
        if (error_) return;
        if (leaf_ != Element::none) {
            endLeaf(std::exchange(leaf_, Element::none));
        } else if (tree_.depth() > 0) {
            check(tree_.close());
        } else if (!tree_.complete()) {
            refuse({.what = "no value"});
        }
    }

    void endLeaf(Element leaf) {
        switch (leaf) {
            case Element::key: return check(tree_.addKey(text_));
            case Element::string: return check(tree_.add(text_));
            case Element::integer: return addParsed(integerOf(text_), "integer");
            case Element::real: return addParsed(realOf(text_), "real");
            case Element::date: return addParsed(dateOf(text_), "date");
            case Element::data: return addParsed(dataOf(text_), "data");
            default:
                if (!isBlank(text_)) return refuse({.what = "text in a boolean"});
                check(tree_.add(leaf == Element::isTrue));
        }
    }

    template <typename Parsed>
    void addParsed(std::optional<Parsed> parsed, const char* what) {
        if (!parsed) return refuse({.what = text::format("not the text of a value of kind {}", what)});
        check(tree_.add(std::move(*parsed)));
    }

    void characters(std::string_view text) {
        if (error_) return;
        if (leaf_ != Element::none) {
            text_.append(text);
        } else if (!isBlank(text)) {
            refuse({.what = "text outside a value"});
        }
    }

    void check(std::optional<Fault> fault) {
        if (fault) refuse(*fault);
    }

    void refuse(const Fault& fault) {
        if (error_) return;
        const auto where = text::format("line {}, column {}", XML_GetCurrentLineNumber(parser_),
                                        XML_GetCurrentColumnNumber(parser_) + 1);
        error_ = errorOf(fault, where);
        XML_StopParser(parser_, XML_FALSE);
    }

    const XML_Parser parser_;
    TreeBuilder tree_;
    std::optional<value::Error> error_;
    bool insidePlist_ = false;
    Element leaf_ = Element::none;
    std::string text_;
};

}  // namespace

value::Result<value::Value> readFullXml(std::string_view bytes, const Limits& limits) {
    if (bytes.size() > INT_MAX / 4) {
        return errorOf({ErrorCode::beyondLimits, "too large for a parser"}, text::format("{} bytes", bytes.size()));
    }
    const KeptParser parser{bytes.size()};
    if (parser.get() == nullptr) return value::posixError(ENOMEM, "making a parser");
    return Reader{parser.get(), limits}.read(bytes);
}

}  // namespace plist
