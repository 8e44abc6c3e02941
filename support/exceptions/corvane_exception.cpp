#include "support/exceptions/corvane_exception.h"

namespace tvrn::cpp_utils::exception_utils {
inline namespace v1 {
// Anchors the vtable of the family in this library.
static_assert(std::is_base_of_v<std::exception, CorvaneException>);
}  // namespace v1
}  // namespace tvrn::cpp_utils::exception_utils
