#include "packaging/synchronizator/i_sample_synchronizator.h"

namespace tvrn::encoding::packaging::synchronizator::i_chunk_warning_notifier {
inline namespace v0 {
// The notifier has no state; this unit gives the library its object file.
static_assert(std::is_polymorphic_v<EmptyChunkWarningNotifier>);
}  // namespace v0
}  // namespace tvrn::encoding::packaging::synchronizator::i_chunk_warning_notifier
