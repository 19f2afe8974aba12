#include "avwriter.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}

#include <cstring>

namespace {

constexpr int videoStream = 0;
constexpr int audioStream = 1;

// A packet that owns a copy of bytes.
AVPacket *packetOf(const void *bytes, std::size_t size)
{
    AVPacket *packet = av_packet_alloc();
    if (!packet)
        return nullptr;
    if (av_new_packet(packet, static_cast<int>(size)) < 0) {
        av_packet_free(&packet);
        return nullptr;
    }
    std::memcpy(packet->data, bytes, size);
    return packet;
}

// 16-bit mono PCM at sampleRate.
void addSoundStream(AVStream *audio, int sampleRate)
{
    audio->time_base = AVRational{ 1, sampleRate };
    audio->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
    audio->codecpar->codec_id = AV_CODEC_ID_PCM_S16LE;
    audio->codecpar->sample_rate = sampleRate;
    av_channel_layout_default(&audio->codecpar->ch_layout, 1);
    audio->codecpar->bits_per_coded_sample = 16;
    audio->codecpar->block_align = 2;
    audio->codecpar->bit_rate = int64_t(sampleRate) * 16;
}

} // namespace

AvWriter::~AvWriter()
{
    close();
}

bool AvWriter::open(const std::string &path, cv::Size frameSize, int framesPerSecond,
                    int sampleRate)
{
    close();
    samples = 0;
    this->framesPerSecond = framesPerSecond;
    this->sampleRate = sampleRate;
    if (avformat_alloc_output_context2(&context, nullptr, "avi", path.c_str()) < 0 || !context)
        return false;

    AVStream *video = avformat_new_stream(context, nullptr);
    AVStream *audio = video && sampleRate > 0 ? avformat_new_stream(context, nullptr) : nullptr;
    if (!video || (sampleRate > 0 && !audio)) {
        close();
        return false;
    }
    video->time_base = AVRational{ 1, framesPerSecond };
    video->avg_frame_rate = AVRational{ framesPerSecond, 1 };
    video->r_frame_rate = video->avg_frame_rate;
    video->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
    video->codecpar->codec_id = AV_CODEC_ID_MJPEG;
    video->codecpar->codec_tag = MKTAG('M', 'J', 'P', 'G');
    video->codecpar->width = frameSize.width;
    video->codecpar->height = frameSize.height;
    video->codecpar->format = AV_PIX_FMT_YUVJ420P;

    // Every packet goes to the file as it is written, so that a recording
    // cut short (the program killed) keeps every whole frame before it.
    context->flush_packets = 1;

    if (audio)
        addSoundStream(audio, sampleRate);

    if (avio_open(&context->pb, path.c_str(), AVIO_FLAG_WRITE) < 0) {
        close();
        return false;
    }
    if (avformat_write_header(context, nullptr) < 0) {
        close();
        return false;
    }
    headerWritten = true;
    return true;
}

bool AvWriter::writeFrame(const std::vector<uchar> &jpeg, int64_t pts)
{
    return writeFrame(jpeg.data(), jpeg.size(), pts);
}

bool AvWriter::writeFrame(const uchar *jpeg, std::size_t size, int64_t pts)
{
    if (!context || size == 0)
        return false;
    AVPacket *packet = packetOf(jpeg, size);
    if (!packet)
        return false;
    packet->stream_index = videoStream;
    packet->pts = packet->dts = pts;
    packet->duration = 1;
    packet->flags |= AV_PKT_FLAG_KEY;
    // The muxer may have settled on another time base when the header went.
    av_packet_rescale_ts(packet, AVRational{ 1, framesPerSecond },
                         context->streams[videoStream]->time_base);
    const bool ok = av_interleaved_write_frame(context, packet) >= 0;
    av_packet_free(&packet);
    return ok;
}

bool AvWriter::writeSamples(const int16_t *data, std::size_t count)
{
    if (context && context->nb_streams <= unsigned(audioStream))
        return false; // a file without sound
    if (!context || count == 0)
        return context != nullptr;
    AVPacket *packet = packetOf(data, count * sizeof(int16_t));
    if (!packet)
        return false;
    packet->stream_index = audioStream;
    packet->pts = packet->dts = samples;
    packet->duration = static_cast<int64_t>(count);
    packet->flags |= AV_PKT_FLAG_KEY;
    av_packet_rescale_ts(packet, AVRational{ 1, sampleRate },
                         context->streams[audioStream]->time_base);
    const bool ok = av_interleaved_write_frame(context, packet) >= 0;
    av_packet_free(&packet);
    samples += static_cast<int64_t>(count);
    return ok;
}

bool AvWriter::close()
{
    if (!context)
        return true;
    bool ok = true;
    if (headerWritten)
        ok = av_write_trailer(context) >= 0;
    headerWritten = false;
    if (context->pb)
        avio_closep(&context->pb);
    avformat_free_context(context);
    context = nullptr;
    return ok;
}
