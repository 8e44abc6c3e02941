#pragma once
// One box written alone through the box layer's two-pass write.
#include <memory>

#include "packaging/imff_box/box.h"
#include "tests/common/bytes.h"

namespace testkit {

inline Bytes writeBox(const std::shared_ptr<tvrn::encoding::packaging::imff::imff_box::Box>& box) {
    return tvrn::encoding::packaging::imff::imff_box::binarizeBoxes({box});
}

}  // namespace testkit
