#include <gtest/gtest.h>

#include "support/exceptions/com_exception.h"
#include "support/exceptions/corvane_exception.h"

namespace {
using namespace tvrn::cpp_utils::exception_utils;

struct Owner;  // incomplete on purpose: a tag need not be complete
struct OtherOwner : WithException<OtherOwner> {};

TEST(Exceptions, TaggedTypesKeepTheirTextAndAreCaughtAsTheBase) {
    try {
        throw ExceptionTemplate<Owner>("a 100% exact text");
    } catch (const ExceptionTemplate<OtherOwner>&) {
        FAIL() << "a different tag is a different type";
    } catch (const CorvaneException& e) {
        EXPECT_STREQ(e.what(), "a 100% exact text");
    }
    try {
        throw OtherOwner::Exception("other");
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "other");
    }
    EXPECT_STREQ(GeneralException("general").what(), "general");
}

TEST(Exceptions, ComReportNamesCategoryOperationPlaceAndCodeText) {
    COMException withCode("pin refused", tvrn::com::E_INVALIDARG, "Connect", "input pin");
    const std::string report = withCode.report();
    EXPECT_NE(report.find("COM Error"), std::string::npos);
    EXPECT_NE(report.find("Connect"), std::string::npos);
    EXPECT_NE(report.find("input pin"), std::string::npos);
    EXPECT_NE(report.find(tvrn::com::resultCodeText(tvrn::com::E_INVALIDARG)), std::string::npos);
    EXPECT_NE(report.find("pin refused"), std::string::npos);

    COMException noCode("bad", "Op", "here");
    EXPECT_EQ(noCode.report().rfind("Corvane Error", 0), 0u);
    EXPECT_EQ(tvrn::com::resultCodeText(0x12345678), "Invalid error code");
    EXPECT_LT(tvrn::com::resultCodeText(tvrn::com::E_FAIL).size(), tvrn::com::kErrorTextBufferSize);
}
}  // namespace
