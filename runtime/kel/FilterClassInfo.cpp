#include <KEL/FilterClassInfo.h>

namespace KEL {

const char* FilterCategoryName(FilterCategory category) noexcept {
    switch (category) {
        case FILTER_CATEGORY_SOURCE:
            return "source";
        case FILTER_CATEGORY_TRANSFORM:
            return "transform";
        case FILTER_CATEGORY_ANALYSIS:
            return "analysis";
        case FILTER_CATEGORY_RENDER:
            return "render";
        case FILTER_CATEGORY_TARGET:
            return "target";
        case FILTER_CATEGORY_UNKNOWN:
            break;
    }
    return "unknown";
}

}  // namespace KEL
