#include <gtest/gtest.h>

#include <sstream>

#include "support/exceptions/corvane_exception.h"
#include "support/log/log_perf.h"
#include "support/log/ostream_logger.h"
#include "support/log/prefixed_logger.h"

namespace {
using namespace tvrn::log;

// Records what reaches it, level and text.
class RecordingLogger : public ILogger {
public:
    void WriteMsg(LOGLEVEL level, const char* format, ...) override __attribute__((format(printf, 3, 4))) {
        va_list args;
        va_start(args, format);
        char buffer[4096];
        std::vsnprintf(buffer, sizeof buffer, format, args);
        va_end(args);
        levels.push_back(level);
        texts.emplace_back(buffer);
        formats.emplace_back(format);
    }
    std::vector<LOGLEVEL> levels;
    std::vector<std::string> texts;
    std::vector<std::string> formats;
};

TEST(OstreamLogger, WritesOneLabelledLinePerMessage) {
    std::ostringstream out;
    auto logger = ostream_logger::newOstreamLogger(&out);
    logger->WriteMsg(2, "Hello!");
    logger->WriteMsg(1, "%d,%d", 10, 666);
    logger->WriteMsg(3, "lalala");
    logger->WriteMsg(0, "");
    EXPECT_EQ(out.str(), "Info   : Hello!\nWarning: 10,666\nDebug  : lalala\nError  : \n");
}

TEST(OstreamLogger, NeverCutsLongTextsAndRefusesBadLevelsAndStreams) {
    std::ostringstream out;
    auto logger = ostream_logger::newOstreamLogger(&out);
    const std::string longText(5000, 'x');
    logger->WriteMsg(2, "%s", longText.c_str());
    EXPECT_EQ(out.str(), "Info   : " + longText + "\n");
    try {
        logger->WriteMsg(123, "");
        FAIL();
    } catch (const CorvaneException& e) {
        EXPECT_STREQ(e.what(), "invalid log level");
    }
    try {
        ostream_logger::newOstreamLogger(nullptr);
        FAIL();
    } catch (const CorvaneException& e) {
        EXPECT_STREQ(e.what(), "cannot create ostream logger with null ostream");
    }
}

TEST(PrefixedLogger, KeepsTheLevelAndPassesTheTextAsAnArgument) {
    RecordingLogger target;
    prefixed_logger::PrefixedLogger logger(target, "Fmp4 mux: ");
    logger.WriteMsg(1, "%d%% done", 50);
    ASSERT_EQ(target.levels.size(), 1u);
    EXPECT_EQ(target.levels[0], 1u);
    EXPECT_EQ(target.texts[0], "Fmp4 mux: 50% done");
    EXPECT_EQ(target.formats[0], "%s%s");
}

TEST(SmartLogPerf, CutsAt259CharactersAndRestoresTheDefaultOnNull) {
    log_perf::SmartLogPerf<log_perf::DummyLogPerf> logger;
    RecordingLogger target;
    logger.SetTarget(&target);
    const std::string text(300, 'a');
    logger.WriteMsg(0, "%s", text.c_str());
    ASSERT_EQ(target.texts.size(), 1u);
    EXPECT_EQ(target.texts[0], std::string(259, 'a'));
    EXPECT_EQ(target.formats[0], "%s");
    logger.WriteMsg(3, "short %d", 7);
    EXPECT_EQ(target.texts[1], "short 7");
    EXPECT_EQ(target.levels[1], 3u);

    logger.SetTarget(nullptr);
    EXPECT_NE(logger.GetTarget(), &target);
    logger.WriteMsg(2, "to the debug output");
    EXPECT_EQ(target.texts.size(), 2u);
}
}  // namespace
