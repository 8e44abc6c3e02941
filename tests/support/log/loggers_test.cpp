#include <gtest/gtest.h>

#include <sstream>

#include "support/exceptions/corvane_exception.h"
#include "support/log/log_perf.h"
#include "support/log/ostream_logger.h"
#include "support/log/prefixed_logger.h"
#include "tests/common/bytes.h"
#include "tests/common/loggers.h"

namespace {
using namespace tvrn::log;
using testkit::RecordingLogger;

TEST(OstreamLogger, WritesOneLabelledLinePerMessageNeverCutAndRefusesBadLevelsAndStreams) {
    std::ostringstream out;
    auto logger = ostream_logger::newOstreamLogger(&out);
    const std::string longText(5000, 'x');
    logger->WriteMsg(2, "Hello!");
    logger->WriteMsg(1, "%d,%d", 10, 666);
    logger->WriteMsg(3, "%s", longText.c_str());
    logger->WriteMsg(0, "");
    EXPECT_EQ(out.str(), "Info   : Hello!\nWarning: 10,666\nDebug  : " + longText + "\nError  : \n");
    EXPECT_EQ(testkit::failureOf<CorvaneException>([&] { logger->WriteMsg(123, ""); }), "invalid log level");
    EXPECT_EQ(testkit::failureOf<CorvaneException>([] { (void)ostream_logger::newOstreamLogger(nullptr); }),
              "cannot create ostream logger with null ostream");
}

TEST(PrefixedLogger, KeepsTheLevelAndPassesTheTextAsAnArgument) {
    RecordingLogger target;
    prefixed_logger::PrefixedLogger logger(target, "Fmp4 mux: ");
    logger.WriteMsg(1, "%d%% done", 50);
    EXPECT_EQ(target.lines(), std::vector<std::string>{"1 Fmp4 mux: 50% done"});
    EXPECT_EQ(target.entries().at(0).format, "%s%s");
}

TEST(SmartLogPerf, CutsAt259CharactersAndRestoresTheDefaultOnNull) {
    log_perf::SmartLogPerf<log_perf::DummyLogPerf> logger;
    RecordingLogger target;
    logger.SetTarget(&target);
    const std::string text(300, 'a');
    logger.WriteMsg(0, "%s", text.c_str());
    logger.WriteMsg(3, "short %d", 7);
    EXPECT_EQ(target.lines(), (std::vector<std::string>{"0 " + std::string(259, 'a'), "3 short 7"}));
    EXPECT_EQ(target.entries().at(0).format, "%s");

    logger.SetTarget(nullptr);
    EXPECT_NE(logger.GetTarget(), &target);
    logger.WriteMsg(2, "to the debug output");
    EXPECT_EQ(target.entries().size(), 2u);
}
}  // namespace
