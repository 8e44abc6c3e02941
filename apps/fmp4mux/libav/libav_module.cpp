// The libavformat module: fmp4mux's readers that use libavformat, and libavcodec's encoders for silence, behind
// the one function the module exports.
#include "apps/fmp4mux/inputs/libav_module.h"

#include "apps/fmp4mux/libav/libav_input.h"
#include "apps/fmp4mux/libav/libav_streams.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/samplefmt.h>
}

namespace fmp4mux {

namespace {
static_assert(speakers::kMono == AV_CH_LAYOUT_MONO && speakers::kStereo == AV_CH_LAYOUT_STEREO &&
              speakers::kSurround == AV_CH_LAYOUT_SURROUND && speakers::kTwoOne == AV_CH_LAYOUT_2_1 &&
              speakers::kFourZero == AV_CH_LAYOUT_4POINT0 && speakers::kTwoTwo == AV_CH_LAYOUT_2_2 &&
              speakers::kFiveZero == AV_CH_LAYOUT_5POINT0 && speakers::kLowFrequency == AV_CH_LOW_FREQUENCY);

class Module : public LibavModule {
public:
    std::unique_ptr<Input> open(const std::string& url, int inputIndex, std::vector<std::string>& skipped,
                                const std::atomic<bool>* interrupt, std::optional<int> program,
                                std::vector<std::string>* notes, bool libavDemuxer) override {
        if (libavDemuxer) return std::make_unique<LibavInput>(url, inputIndex, skipped, interrupt, program, notes);
        auto probe = std::make_unique<ProbedInput>(url, interrupt);
        if (probe->plainMpegTs()) return openProbedTs(std::move(probe), inputIndex, skipped, program, notes);
        return std::make_unique<LibavInput>(std::move(probe), inputIndex, skipped, program, notes);
    }

    // libavformat's per-packet complaints (a damaged transport packet, a timestamp it guessed) are counted and
    // summed up by fmp4mux itself, so they appear only from verbosity 3.
    void setVerbosity(int verbosity) override { av_log_set_level(verbosity >= 3 ? AV_LOG_VERBOSE : AV_LOG_FATAL); }

    std::vector<std::uint8_t> encodeSilence(const char* name, int rate, std::uint64_t channelMask,
                                            std::int64_t bitRate) override {
        const AVCodec* codec = avcodec_find_encoder_by_name(name);
        if (codec == nullptr) return {};
        const auto freeContext = [](AVCodecContext* c) { avcodec_free_context(&c); };
        const auto freeFrame = [](AVFrame* f) { av_frame_free(&f); };
        const auto freePacket = [](AVPacket* p) { av_packet_free(&p); };
        std::unique_ptr<AVCodecContext, decltype(freeContext)> context(avcodec_alloc_context3(codec), freeContext);
        std::unique_ptr<AVFrame, decltype(freeFrame)> frame(av_frame_alloc(), freeFrame);
        std::unique_ptr<AVPacket, decltype(freePacket)> packet(av_packet_alloc(), freePacket);
        if (!context || !frame || !packet) return {};
        context->sample_rate = rate;
        context->bit_rate = bitRate;
        context->sample_fmt = codec->sample_fmts != nullptr ? codec->sample_fmts[0] : AV_SAMPLE_FMT_FLTP;
        if (av_channel_layout_from_mask(&context->ch_layout, channelMask) < 0) return {};
        if (avcodec_open2(context.get(), codec, nullptr) < 0 || context->frame_size <= 0) return {};
        frame->nb_samples = context->frame_size;
        frame->format = context->sample_fmt;
        frame->sample_rate = rate;
        if (av_channel_layout_copy(&frame->ch_layout, &context->ch_layout) < 0 || av_frame_get_buffer(frame.get(), 0) < 0)
            return {};
        av_samples_set_silence(frame->extended_data, 0, frame->nb_samples, context->ch_layout.nb_channels,
                               context->sample_fmt);
        // An encoder may hold a frame or two back before its first packet.
        for (int n = 0; n < 8; ++n) {
            frame->pts = static_cast<std::int64_t>(n) * context->frame_size;
            if (avcodec_send_frame(context.get(), frame.get()) < 0) return {};
            if (avcodec_receive_packet(context.get(), packet.get()) == 0)
                return std::vector<std::uint8_t>(packet->data, packet->data + packet->size);
        }
        return {};
    }
};
}  // namespace

}  // namespace fmp4mux

extern "C" fmp4mux::LibavModule* fmp4muxLibavModule() {
    static fmp4mux::Module module;
    return &module;
}
