#include "vtd/VTDAnnotationRound.h"

#include <utility>

#include "vtd/ChangeNotice.h"
#include "vtd/VTDAnnotationStore.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDatabase.h"

std::optional<value::Error> VTDAnnotationRound::set(const std::optional<value::Dictionary>& annotation,
                                                    const VTDPlugIn& plugIn) {
    return database_._sync()->sync([&]() -> std::optional<value::Error> {
        const auto store = database_.annotations();
        const std::string annotationKey = plugIn.annotationKey();
        auto before = store->annotationForIdentifier(annotationKey);
        if (auto refused = store->setAnnotation(annotation, annotationKey)) return refused;
        before_.try_emplace(annotationKey, std::move(before));
        ++changes_;
        return {};
    });
}

void VTDAnnotationRound::withdraw() {
    database_._sync()->sync([&] {
        const auto store = database_.annotations();
        for (const auto& [annotationKey, record] : before_) store->putBack(record, annotationKey);
    });
    before_.clear();
    changes_ = 0;
}

void VTDAnnotationRound::end() {
    database_.saveAnnotations();
    before_.clear();
    if (changes_ > 0) postAnnotationChange(std::exchange(changes_, 0));
}
