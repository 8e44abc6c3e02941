// End to end: an init segment from FileHeader for an H.264 track and one moof/mdat pair made from real
// x264 samples must be read by ffprobe with every sample at its time.
//
// The fixture tests/data/x264_320x240_25fps_2s.mp4 was made with Debian's ffmpeg:
//   ffmpeg -f lavfi -i testsrc=size=320x240:rate=25 -t 2 -c:v libx264 -preset veryfast -bf 2 -g 25
//          -pix_fmt yuv420p -x264-params keyint=25:min-keyint=25:scenecut=0 -movflags +faststart out.mp4
// ffprobe lists its packets (position, size, times); the avcC record is read from its bytes.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <unistd.h>

#include "packaging/codec_box/video_boxes.h"
#include "packaging/imff_box/file_header.h"
#include "packaging/imff_box/fragment_builder.h"
#include "tests/packaging/imff_box/test_sample.h"

namespace {
using namespace tvrn::encoding::packaging::imff;
using box_test::TestSample;
using Bytes = std::vector<std::uint8_t>;

constexpr const char* kFfprobe = "/usr/bin/ffprobe";

std::string run(const std::string& command) {
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    std::array<char, 4096> chunk{};
    std::size_t n;
    while ((n = std::fread(chunk.data(), 1, chunk.size(), pipe)) > 0) out.append(chunk.data(), n);
    ::pclose(pipe);
    return out;
}

Bytes readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

struct Packet {
    std::int64_t pts = 0, dts = 0;
    std::size_t size = 0, pos = 0;
    bool key = false;
};

// "pts,dts,size,pos,flags" lines of ffprobe's csv output.
std::vector<Packet> parsePackets(const std::string& csv) {
    std::vector<Packet> packets;
    std::istringstream lines(csv);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.empty()) continue;
        std::istringstream fields(line);
        std::string pts, dts, size, pos, flags;
        std::getline(fields, pts, ',');
        std::getline(fields, dts, ',');
        std::getline(fields, size, ',');
        std::getline(fields, pos, ',');
        std::getline(fields, flags, ',');
        Packet p;
        p.pts = std::stoll(pts);
        p.dts = std::stoll(dts);
        p.size = std::stoul(size);
        p.pos = std::stoul(pos);
        p.key = !flags.empty() && flags[0] == 'K';
        packets.push_back(p);
    }
    return packets;
}

std::uint32_t be16(const Bytes& b, std::size_t at) { return (b[at] << 8) | b[at + 1]; }

// The AVC decoder configuration record of the first avcC box in the file.
void readAvcC(const Bytes& file, codec_box::AVCConfigurationBox& avcC) {
    const std::string text(file.begin(), file.end());
    const std::size_t at = text.find("avcC");
    if (at == std::string::npos || at < 4) throw std::runtime_error("no avcC in the fixture");
    std::size_t p = at + 4;
    avcC.configurationVersion = file[p++];
    avcC.profileIndication = file[p++];
    avcC.profileCompatibility = file[p++];
    avcC.levelIndication = file[p++];
    avcC.lengthSizeMinusOne = file[p++] & 3;
    const int spsCount = file[p++] & 31;
    for (int i = 0; i < spsCount; ++i) {
        const std::size_t n = be16(file, p);
        avcC.sequenceParameterSets.emplace_back(file.begin() + static_cast<long>(p + 2), file.begin() + static_cast<long>(p + 2 + n));
        p += 2 + n;
    }
    const int ppsCount = file[p++];
    for (int i = 0; i < ppsCount; ++i) {
        const std::size_t n = be16(file, p);
        avcC.pictureParameterSets.emplace_back(file.begin() + static_cast<long>(p + 2), file.begin() + static_cast<long>(p + 2 + n));
        p += 2 + n;
    }
    if (codec_box::AVCConfigurationBox::hasChromaFields(avcC.profileIndication)) {
        avcC.chromaFormat = file[p++] & 3;
        avcC.bitDepthLumaMinus8 = file[p++] & 7;
        avcC.bitDepthChromaMinus8 = file[p++] & 7;
    }
}

TEST(FfprobeH264, InitSegmentAndOneFragmentAreReadWithEveryTime) {
    if (!std::filesystem::exists(kFfprobe)) GTEST_SKIP() << "ffprobe is not installed";
    const std::string fixture = std::string(FMP4_TEST_DATA_DIR) + "/x264_320x240_25fps_2s.mp4";
    const Bytes source = readFile(fixture);
    ASSERT_FALSE(source.empty());
    const std::vector<Packet> input = parsePackets(
        run(std::string(kFfprobe) + " -v error -select_streams v:0 -show_packets -show_entries "
            "packet=pts,dts,size,pos,flags -of csv=p=0 '" + fixture + "'"));
    ASSERT_EQ(input.size(), 50u);

    // Samples at the fixture's 1/12800 time base, into a 90 kHz track.
    constexpr std::uint64_t kSourceRate = 12800;
    constexpr std::uint32_t kTrackRate = 90000;
    std::vector<TestSample> samples;
    for (const Packet& p : input) {
        TestSample s = TestSample::make(p.pts, p.dts, kSourceRate, 512, 0, p.key);
        s.data.assign(source.begin() + static_cast<long>(p.pos), source.begin() + static_cast<long>(p.pos + p.size));
        samples.push_back(std::move(s));
    }

    auto entry = std::make_shared<codec_box::AVCSampleEntry>(false);
    entry->width = 320;
    entry->height = 240;
    readAvcC(source, entry->configuration);
    ASSERT_EQ(entry->configuration.sequenceParameterSets.size(), 1u);
    imff_box::FileHeader header(true);
    ASSERT_EQ(header.addTrack(1, kTrackRate, imff_box::TRACK_VIDEO, entry, 320, 240), 1u);

    // The first decode time is negative (B-frames); the offset brings it to 0.
    const std::int64_t firstDts = imff_box::rescaleTime(input.front().dts, kSourceRate, kTrackRate);
    imff_box::TrackFragmentParameters params;
    params.trackId = 1;
    params.video = true;
    params.segmentDuration = 50 * 3600;
    params.trackTimescale = kTrackRate;
    params.timestampOffset = -firstDts;
    params.dash = true;
    const imff_box::TrackFragment fragment =
        imff_box::TrackFragmentBuilder::build(params, box_test::pointers(samples));
    ASSERT_EQ(fragment.samples.size(), 50u);

    auto moof = std::make_shared<imff_box::Box>(imff_box::fourCC("moof"));
    moof->addChild(std::make_shared<imff_box::MovieFragmentHeaderBox>(1));
    moof->addChild(fragment.traf);
    auto mdat = std::make_shared<imff_box::MediaDataBox>(fragment.payloadSize);
    // The data offset counts from the start of moof (default-base-is-moof) to the first sample byte.
    fragment.trun->setDataOffset(static_cast<std::int32_t>(moof->getSize() + 8));

    Bytes file = header.binarize();
    const imff_box::BoxList media{moof, mdat};
    Bytes chunk(imff_box::getBoxesSize(media));  // mdat counts its payload
    imff_box::ImffBitWriter writer(chunk.data(), chunk.size());
    for (const auto& box : media) imff_box::binarizeChecked(*box, writer);
    imff_box::TrackFragmentBuilder::writePayload(fragment, writer);
    ASSERT_EQ(writer.getBytePosition(), chunk.size());
    file.insert(file.end(), chunk.begin(), chunk.end());

    char path[] = "/tmp/imff_box_ffprobe_XXXXXX";
    const int fd = ::mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, file.data(), file.size()), static_cast<ssize_t>(file.size()));
    ::close(fd);

    const std::string errors = run(std::string(kFfprobe) + " -v error -show_streams -show_packets '" + path +
                                   "' 2>&1 >/dev/null");
    EXPECT_EQ(errors, "") << "ffprobe complained";
    const std::string streams = run(std::string(kFfprobe) + " -v error -show_streams -of flat '" + path + "'");
    EXPECT_NE(streams.find("codec_name=\"h264\""), std::string::npos) << streams;
    EXPECT_NE(streams.find("width=320"), std::string::npos);
    EXPECT_NE(streams.find("height=240"), std::string::npos);
    EXPECT_NE(streams.find("time_base=\"1/90000\""), std::string::npos);
    const std::vector<Packet> output = parsePackets(
        run(std::string(kFfprobe) + " -v error -show_packets -show_entries packet=pts,dts,size,pos,flags "
            "-of csv=p=0 '" + path + "'"));
    std::filesystem::remove(path);

    ASSERT_EQ(output.size(), input.size());
    std::size_t expectedPos = file.size() - fragment.payloadSize;
    for (std::size_t i = 0; i < input.size(); ++i) {
        SCOPED_TRACE(i);
        const std::int64_t dts = imff_box::rescaleTime(input[i].dts, kSourceRate, kTrackRate) - firstDts;
        const std::int64_t pts = imff_box::rescaleTime(input[i].pts, kSourceRate, kTrackRate) - firstDts;
        EXPECT_EQ(output[i].dts, dts);
        EXPECT_EQ(output[i].pts, pts);
        EXPECT_EQ(output[i].size, input[i].size);
        EXPECT_EQ(output[i].pos, expectedPos);
        expectedPos += input[i].size;
    }
    EXPECT_TRUE(output.front().key);
}

}  // namespace
