#pragma once

#include <KelCommon/Export.h>
#include <KelCommon/String.h>

namespace KEL {

// What a filter class does in a graph.
enum FilterCategory : int {
    FILTER_CATEGORY_UNKNOWN = 0,
    FILTER_CATEGORY_SOURCE = 1,     // produces atoms
    FILTER_CATEGORY_TRANSFORM = 2,  // changes atoms
    FILTER_CATEGORY_ANALYSIS = 3,   // derives data from atoms
    FILTER_CATEGORY_RENDER = 4,     // shows atoms
    FILTER_CATEGORY_TARGET = 5,     // consumes atoms (files, network)
};

const char* FilterCategoryName(FilterCategory category) noexcept;

// Class-wide description of a filter class: its display name, the name of the
// plugin that provides it (filled in by the factory when the class is
// registered while a plugin loads; empty for classes built into a program),
// and its category.
class KEL_API FilterClassInfo {
public:
    FilterClassInfo() = default;
    FilterClassInfo(KelCommon::String name, FilterCategory category) : name_(std::move(name)), category_(category) {}

    const KelCommon::String& GetName() const noexcept { return name_; }
    const KelCommon::String& GetProvider() const noexcept { return provider_; }
    void SetProvider(KelCommon::String provider) { provider_ = std::move(provider); }
    FilterCategory GetCategory() const noexcept { return category_; }

private:
    KelCommon::String name_;
    KelCommon::String provider_;
    FilterCategory category_ = FILTER_CATEGORY_UNKNOWN;
};

}  // namespace KEL
