#include "Velto/VTDaemonClient.h"
#include "tests/support/Words.h"
#include "tests/vtd/World.h"

namespace {

// A whole daemon and its client in one process, over a real socket, with two plug-ins on the system volume.
class MatchRequest : public testing::Test {
protected:
    static constexpr char kService[] = "halvern.test.match";

    MatchRequest() {
        for (const std::string name : {"one", "two"}) {
            const Dictionary info{{"QFBundleIdentifier", "org.example." + name},
                                  {"KXExtension", Dictionary{{"KXExtensionProtocol", "#Data"}}}};
            World::get().root().writeList("system/PlugIns/" + name + ".plugin/Info.plist", info);
        }
    }

    // What the daemon answers: the error, or the matches' identifiers and how many annotations they have.
    std::string ask(std::int64_t version, const Value& rules, std::uint64_t flags) {
        client.setProtocolVersion(version);
        mox::Dictionary request = client.request(VTRequest::match);
        request.set(VTKey::rules, rules);
        request.set(VTKey::flags, flags);
        std::promise<std::string> answer;
        client.send(request, [&](const mox::Object& reply) { answer.set_value(textOf(reply)); });
        return answer.get_future().get();
    }

    static std::string textOf(const mox::Object& reply) {
        if (const auto error = VTDaemonClient::errorInReply(reply)) {
            return std::to_string(error->code) + " " + error->localizedDescription();
        }
        const auto matches = reply.view().find(VTKey::matches);
        if (!matches) return "no matches";
        std::string text = "matches";
        const Value forms = matches->toValue();
        for (const Value& form : *forms.array()) {
            text += " " + *form.dictionary()->string(VTFormKey::identifier) + "+" +
                    std::to_string(form.dictionary()->dictionary(VTFormKey::annotations)->size());
        }
        return text;
    }

    VTDaemonClient client{kService};
};

TEST_F(MatchRequest, IsAnsweredWithFormsOrWithWhatIsWrong) {
    const auto server = World::get().serve(kService);
    server->setCacheLimit(10);
    const auto candidates = server->findPlugIns({});
    server->setAnnotation(Dictionary{{"election", 1}}, *candidates->at(1));

    const std::string everything = "matches org.example.one+0 org.example.two+1";
    const struct {
        const char* name;
        std::int64_t version;
        Value rules;
        std::uint64_t flags;
        std::string answer;
    } rows[] = {
        {"no rules", 3, Dictionary{}, 0, everything},
        {"unknown flags", 3, Dictionary{}, ~std::uint64_t{VTDiscoverAll}, everything},
        {"elected", 3, Dictionary{{"KXUserElection", "1"}}, 0, "matches org.example.two+1"},
        {"nothing matches", 3, Dictionary{{"KXExtensionIdentifier", "x"}}, 0, "matches"},
        {"version without message form", 2, Dictionary{}, 0, "no matches"},
        {"bad rules", 3, Array{}, VTDiscoverAll, "4 invalid request format (bad rules dictionary)"},
        {"no manager", 3, Dictionary{}, VTDiscoverAll, "11 unauthorized discovery flag (VTDiscoverAll)"},
    };
    for (const auto& row : rows) EXPECT_EQ(ask(row.version, row.rules, row.flags), row.answer) << row.name;
}

}  // namespace
