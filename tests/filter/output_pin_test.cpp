#include <gtest/gtest.h>

#include <numeric>
#include <tuple>

#include "filter_helpers.h"
#include "tests/common/session_fakes.h"

namespace {
using namespace filter_test;
namespace fmp4 = tvrn::encoding::packaging::imff::fmp4;

// A filter with one connected H.264 input whose output goes to `sink`, and a session whose chunk builder only
// records the outputs it is given, so the test writes chunks itself through the filter's own sink.
struct OutputFixture {
    testkit::ChunksBuilderLog chunks;
    testkit::RecordingLogger logger;
    RecordingSink sink;
    FilterHolder filter;

    explicit OutputFixture(long maxBuffers)
        : sink(maxBuffers), filter(CMuxFmp4Filter::Create(parts())) {
        filter->SetLogger(&logger);
        filter->SetMuxMode("s", fmp4::Dash, fmp4::GopSegments, 2000, 3, 0, 0, 0, 0, 0, 0, 0);
        EXPECT_EQ(filter->inputPins()[0]->ReceiveConnection(inputType(1, 2000000)), S_OK);
        EXPECT_EQ(filter->outputPins()[0]->Connect(&sink), S_OK);
        filter->Pause();
        EXPECT_TRUE(waitForWorker(filter.filter, fmp4::Running));
    }
    fmp4::Fmp4MuxParts parts() {
        fmp4::Fmp4MuxParts p;
        p.makeChunksBuilder = [this](const fmp4::ChunksBuilderParams&) {
            return std::make_unique<testkit::FakeChunksBuilder>(chunks);
        };
        return p;
    }
    fmp4::IOutputFmp4& output() { return *chunks.outputs.at(0).output; }
};

std::vector<std::uint8_t> pattern(std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{7});
    return bytes;
}

TEST(OutputPin, BuffersForThreeSegmentsAtTheBitrate) {
    // 6000 ms x 3 x 2 Mbit/s / 8000 = 4.5 MB: (4500000 + 8191) / 8192 = 550 buffers of 8192 bytes.
    OutputFixture f(0x7FFFFFFF);
    EXPECT_EQ(f.sink.allocator().properties().count, 550);
    EXPECT_EQ(f.sink.allocator().properties().size, 8192);
    f.filter->Stop();

    // A sink whose allocator gives smaller buffers cannot connect.
    class SmallSink : public RecordingSink {
    public:
        SmallSink() : m_small(1000, 4096) {}
        MemAllocator* GetAllocator() override { return &m_small;  }
    private:
        MemAllocator m_small;
    } small;
    ASSERT_EQ(f.filter->inputPins()[1]->ReceiveConnection(inputType(8, 128000)), S_OK);
    EXPECT_EQ(f.filter->outputPins()[1]->Connect(&small), E_FAIL);
}

TEST(OutputPin, AChunkLeavesAsSamplesOfAtMost8192BytesMarkedOnTheFirst) {
    OutputFixture f(100);
    ASSERT_EQ(f.chunks.outputs.size(), 1u);
    EXPECT_EQ(f.chunks.outputs[0].streamIds, std::vector<std::int32_t>{0});
    const auto init = pattern(300);
    ASSERT_TRUE(f.output().Write(init.data(), init.size(), nullptr, 0, true, false, false, 0));
    const auto chunk = pattern(8193);
    const std::int64_t time = 20000000;
    ASSERT_TRUE(f.output().Write(chunk.data(), chunk.size(), &time, 0, false, true, true, 77));
    const auto got = f.sink.snapshot();
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].bytes, init);
    // Size, sync point, time, discontinuity, data id: the init chunk is a sync point without time; the media
    // chunk leaves as 8192 + 1 bytes, both with its time, the first with discontinuity and data id.
    using Seen = std::tuple<std::size_t, bool, bool, std::int64_t, bool, bool, std::uint64_t>;
    const auto seen = [&](std::size_t i) {
        const auto& g = got[i];
        return Seen{g.bytes.size(), g.sync, g.hasTime, g.hasTime ? g.start : -1, g.discontinuity, g.hasDataId,
                    g.hasDataId ? g.dataId : 0};
    };
    EXPECT_EQ(seen(0), (Seen{300, true, false, -1, false, false, 0}));
    EXPECT_EQ(seen(1), (Seen{8192, false, true, time, true, true, 77}));
    EXPECT_EQ(seen(2), (Seen{1, false, true, time, false, false, 0}));
    std::vector<std::uint8_t> joined = got[1].bytes;
    joined.insert(joined.end(), got[2].bytes.begin(), got[2].bytes.end());
    EXPECT_EQ(joined, chunk);
    std::uint32_t delivered = 0;
    f.filter->GetStatus(&delivered, nullptr, 0);
    EXPECT_EQ(delivered, 2u);
    f.filter->Stop();
}

TEST(OutputPin, AChunkThatDoesNotFitIsDroppedWholeAndTheNextOneThatFitsLeaves) {
    OutputFixture f(2);
    // Hold one of the two buffers, as a slow downstream would.
    IMediaSample3* held = nullptr;
    ASSERT_EQ(f.sink.allocator().GetBuffer(&held, nullptr, nullptr, AM_GBF_NOWAIT), S_OK);
    const auto big = pattern(3 * 8192);
    const std::int64_t time = 0;
    EXPECT_FALSE(f.output().Write(big.data(), big.size(), &time, 0, false, false, false, 0));
    EXPECT_TRUE(f.sink.snapshot().empty());
    EXPECT_TRUE(f.logger.contains("1 smooth streamer (2000 kbps): dropping segment"));
    EXPECT_EQ(f.sink.allocator().freeCount(), 1);  // the buffer taken for the dropped chunk came back
    const auto small = pattern(100);
    EXPECT_TRUE(f.output().Write(small.data(), small.size(), &time, 0, false, false, false, 0));
    ASSERT_EQ(f.sink.snapshot().size(), 1u);
    EXPECT_EQ(f.sink.snapshot()[0].bytes, small);
    held->Release();
    f.filter->Stop();
}

TEST(OutputPin, NothingIsDeliveredWhileTheFilterIsStopped) {
    OutputFixture f(10);
    f.filter->Stop();
    const auto bytes = pattern(10);
    const std::int64_t time = 0;
    EXPECT_TRUE(f.output().Write(bytes.data(), bytes.size(), &time, 0, false, false, false, 0));
    EXPECT_TRUE(f.sink.snapshot().empty());
    f.output().EndOfStream();
    EXPECT_EQ(f.sink.endCount(), 1);
}

TEST(InputPin, TheDataIdSurvivesOnlyWhenTheDropFlagIsCleared) {
    struct Callback : IDelayCrossingPointCallback {
        void OnDelayCrossingPoint(std::uint64_t id) override { ids.push_back(id); }
        std::vector<std::uint64_t> ids;
    } callback;
    FilterHolder filter(CMuxFmp4Filter::Create());
    auto* pin = filter->inputPins()[0];
    ASSERT_EQ(pin->ReceiveConnection(inputType(1, 1000)), S_OK);
    pin->SetDelayCrossingPointCallback(&callback);
    auto sample = COOBMediaSample::create(16);
    const std::uint64_t id = 1234;
    sample->SetMetadata(MetadataDataId, reinterpret_cast<const std::uint8_t*>(&id), 8);
    filter->Pause();
    EXPECT_EQ(pin->Receive(sample.get()), S_OK);
    EXPECT_TRUE(callback.ids.empty());
    pin->SetDropDataId(0);
    EXPECT_EQ(pin->Receive(sample.get()), S_OK);
    EXPECT_EQ(callback.ids, std::vector<std::uint64_t>{1234});
    // The source sample keeps its own metadata whatever the wrapper does.
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    EXPECT_EQ(sample->GetMetadata(MetadataDataId, &data, &size), S_OK);
    EXPECT_EQ(sample->RemoveMetadata(MetadataCuePoint), S_OK);
    filter->Stop();
}
}  // namespace
