#include <gtest/gtest.h>

#include "support/exceptions/com_exception.h"
#include "support/exceptions/corvane_exception.h"
#include "tests/common/bytes.h"

namespace {
using namespace tvrn::cpp_utils::exception_utils;
using testkit::failureOf;

struct Owner;  // incomplete on purpose: a tag need not be complete
struct OtherOwner : WithException<OtherOwner> {};

TEST(Exceptions, TaggedTypesKeepTheirTextAndAreCaughtAsTheBase) {
    const auto throwOwners = [] { throw ExceptionTemplate<Owner>("a 100% exact text"); };
    EXPECT_EQ(failureOf<CorvaneException>(throwOwners), "a 100% exact text");
    // A different tag is a different type: a handler of the other tag lets it through.
    EXPECT_THROW(failureOf<ExceptionTemplate<OtherOwner>>(throwOwners), ExceptionTemplate<Owner>);
    EXPECT_EQ(failureOf([] { throw OtherOwner::Exception("other"); }), "other");
    EXPECT_STREQ(GeneralException("general").what(), "general");
}

TEST(Exceptions, ComReportNamesCategoryOperationPlaceAndCodeText) {
    EXPECT_EQ(COMException("pin refused", tvrn::com::E_INVALIDARG, "Connect", "input pin").report(),
              "COM Error: operation [Connect] failed at [input pin] with 0x80070057 (One or more arguments are not "
              "valid.): pin refused");
    EXPECT_EQ(COMException("bad", "Op", "here").report(), "Corvane Error: operation [Op] failed at [here]: bad");
    EXPECT_EQ(tvrn::com::resultCodeText(0x12345678), "Invalid error code");
    EXPECT_LT(tvrn::com::resultCodeText(tvrn::com::E_FAIL).size(), tvrn::com::kErrorTextBufferSize);
}
}  // namespace
