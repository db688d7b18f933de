#pragma once

// The keys of an explanation: what became of one plug-in in a discovery that was asked to explain itself. All values
// are texts but where it says otherwise; what is not known, or not for whoever asks, is missing.
namespace VTExplanationKey {

// Of the plug-in.
inline constexpr char identifier[] = "identifier";
inline constexpr char uuid[] = "uuid";
inline constexpr char path[] = "path";
inline constexpr char version[] = "version";
inline constexpr char point[] = "point";      // the extension point that it says it serves
inline constexpr char verdict[] = "verdict";  // one of VTVerdict
inline constexpr char gate[] = "gate";        // which decided; missing when it is offered
inline constexpr char gates[] = "gates";      // array of dictionaries, in the order in which they are asked

// Of a gate, besides "gate".
inline constexpr char answer[] = "answer";            // one of VTAnswer
inline constexpr char reason[] = "reason";            // why it refuses
inline constexpr char wanted[] = "wanted";            // what would have passed
inline constexpr char found[] = "found";              // what there was
inline constexpr char file[] = "file";                // where that came from, and
inline constexpr char key[] = "key";                  // the key in it, a path with dots
inline constexpr char rule[] = "rule";                // the name of the rule, the host's or the request's
inline constexpr char entitlement[] = "entitlement";  // the name of one
inline constexpr char exclusion[] = "exclusion";      // unsigned: its number, from 1
inline constexpr char holders[] = "holders";          // array of dictionaries: "pid" signed, "seconds" unsigned
inline constexpr char pid[] = "pid";
inline constexpr char seconds[] = "seconds";
inline constexpr char other[] =
    "other";  // dictionary: "uuid", "version" of the copy, one of the matches, that stands instead

}  // namespace VTExplanationKey

namespace VTVerdict {
inline constexpr char offered[] = "offered";     // it is among the matches
inline constexpr char heldBack[] = "held back";  // a gate refused it
inline constexpr char refused[] = "refused";     // the daemon makes no record of the bundle
}  // namespace VTVerdict

namespace VTAnswer {
inline constexpr char passed[] = "passed";
inline constexpr char refused[] = "refused";
inline constexpr char wouldPass[] = "would pass";  // it comes behind the one that decided
inline constexpr char wouldRefuse[] = "would refuse";
inline constexpr char notAsked[] = "not asked";  // the flags leave it out, or there was nothing left to ask it with
}  // namespace VTAnswer

// What refuses beside the gates of a discovery.
namespace VTGate {
inline constexpr char bundle[] = "bundle";              // mis-configured; "reason" has the lines of the log
inline constexpr char installation[] = "installation";  // the application is still being installed
}  // namespace VTGate
