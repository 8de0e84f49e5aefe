// The tool's recording verb: synthetic frames on many channels at once (with
// a power cut on demand), or an H.264 clip as one segment. Recording past
// the disks' capacity, with overwrite, is in qzfs_retention.cpp.
#include "qzfs_record.h"

#include "h264_stream.h"
#include "power_cut.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace qzfs_tool {

FrameSourceConfig frames_for_bitrate(uint8_t channel, unsigned long bitrate,
                                     const _k4t_fs_date_time_& start)
{
    FrameSourceConfig config;
    config.channel = channel;
    config.fps = 25;
    config.gop = 25;
    const unsigned long overhead = config.fps * (12 + FrameSource::kRecordBytes);
    const unsigned long pframe = (bitrate / 8 - overhead) / (config.gop - 1 + 4);
    config.pframe_bytes = uint32_t(pframe);
    config.iframe_bytes = uint32_t(pframe * 4);
    config.start = start;
    return config;
}

bool Progress::isatty_stdout() { return isatty(fileno(tool_out())) != 0; }

void Progress::update(unsigned done, unsigned long long bytes)
{
    const auto now = std::chrono::steady_clock::now();
    if (now - last_ < std::chrono::seconds(1))
        return;
    last_ = now;
    shown_ = true;
    print("recording: %u of %u seconds, %llu MiB%s", done, total_, bytes >> 20,
           tty_ ? "\r" : "\n");
    fflush(tool_out());
}

void Progress::finish()
{
    if (shown_ && tty_)
        print("%60s\r", "");
}

namespace {

// Closes the channels' segments, leaves the group and unmounts.
void end_recording(std::vector<Recording>& channels)
{
    for (Recording& r : channels)
        if (r.fd > 0)
            api_qzfs_close_stream_segment(r.fd);
    api_qzfs_delete_disk_from_group(TOOL_HDD_ID, 0);
    api_qzfs_umount(TOOL_HDD_ID);
}

// Group 0 holds the tool's disk alone; recording stays on it while more
// than a hundredth of it (50 MiB at least) is free.
int choose_disk_for_recording(const std::string& path)
{
    _qzfs_k4t_hdd_info_ info = {};
    api_qzfs_get_hdd_info(TOOL_HDD_ID, &info);
    const unsigned long long size = (unsigned long long)info.total_num * info.block_size;
    const unsigned long long free = (unsigned long long)info.free_num * info.block_size;
    _qzfs_k4t_hdd_overwrite_config_ config;
    config.reserve_free_size_for_record = std::max(0x3200000ULL, size / 100);
    config.used_for_recording_free_size = config.reserve_free_size_for_record;
    config.start_delete_free_size = config.reserve_free_size_for_record;
    config.once_delete_size = 8ULL * info.block_size;
    unsigned char hdd = 255;
    if (api_qzfs_add_disk_to_group(TOOL_HDD_ID, 0) != 0)
        return fail("cannot put %s in a recording group", path);
    if (api_qzfs_config_overwrite(0, &config) != 0 || api_qzfs_find_work_hdd(0, &hdd) != 0 ||
        hdd != TOOL_HDD_ID)
        return fail("%s has no room to record", path + " (" + std::to_string(free >> 20) +
                                                     " MiB free, more than " +
                                                     std::to_string(config.used_for_recording_free_size >> 20) +
                                                     " MiB needed)");
    return 0;
}

// Checks the options of a synthetic recording and fills in `request`.
int parse_record_request(const Args& args, RecordRequest& request)
{
    std::string error;
    if (!only_options(args, {"--channels", "--seconds", "--bitrate", "--start", "--cut-after-writes",
                             "--overwrite", "--segment-seconds", "--reserve"},
                      error))
        return fail("%s", error);
    request.overwrite = args.option("--overwrite") != nullptr;
    if (!request.overwrite && args.positional.size() != 1)
        return fail("record takes one IMAGE (several with --overwrite)");
    if (request.overwrite && (args.positional.empty() || args.positional.size() > kMaxGroupImages))
        return fail("record --overwrite takes 1 to %s images", std::to_string(kMaxGroupImages));
    if (!request.overwrite &&
        (args.option("--segment-seconds") != nullptr || args.option("--reserve") != nullptr))
        return fail("--segment-seconds and --reserve go with --overwrite");
    if (request.overwrite && args.option("--cut-after-writes") != nullptr)
        return fail("--cut-after-writes does not go with --overwrite");
    if (args.option("--cut-after-writes") != nullptr &&
        (!number_option(args, "--cut-after-writes", 0xFFFFFFFEu, 0, request.cut_after_writes) ||
         request.cut_after_writes == 0))
        return fail("--cut-after-writes takes a device write number from 1 on");
    if (args.option("--channels") == nullptr ||
        !number_option(args, "--channels", 255, 0, request.channels) || request.channels == 0)
        return fail("record needs --channels N (1 to 255)");
    if (args.option("--seconds") == nullptr ||
        !number_option(args, "--seconds", 86400, 0, request.seconds) || request.seconds == 0)
        return fail("record needs --seconds S (1 to 86400)");
    if (!number_option(args, "--bitrate", 50000000, 4000000, request.bitrate) ||
        request.bitrate < 64000)
        return fail("--bitrate takes 64000 to 50000000 bits a second");
    if (request.overwrite &&
        (!number_option(args, "--segment-seconds", 86400, 60, request.segment_seconds) ||
         request.segment_seconds == 0))
        return fail("--segment-seconds takes 1 to 86400");
    const std::string* reserve = args.option("--reserve");
    if (reserve != nullptr && (!parse_size(*reserve, request.reserve) || request.reserve < 0x3200000))
        return fail("--reserve takes a size of 50M or more");
    _k4t_fs_date_time_& start = request.start;
    const std::string* start_text = args.option("--start");
    if (start_text != nullptr ? !parse_date_time(*start_text, start) : !local_now(start))
        return fail("--start takes a local time YYYY-MM-DDTHH:MM:SS (2000 to 2099)");
    request.first = start.hour * 3600u + start.minute * 60u + start.second;
    if (request.first + request.seconds > 86400)
        return fail("the recording would run past midnight; start earlier or record less");
    return 0;
}

// Opens a new segment on each channel of the request; on a failure ends
// the recording and reports it.
int start_channels(const RecordRequest& request, std::vector<Recording>& channels)
{
    for (unsigned c = 0; c < request.channels; c++) {
        channels.emplace_back(frames_for_bitrate(uint8_t(c), request.bitrate, request.start));
        _qzfs_k4t_create_ss_para_ para = recording_request(uint8_t(c), 0, request.start);
        Recording& r = channels.back();
        r.fd = api_qzfs_create_stream_segment(&para);
        if (r.fd <= 0 || api_qzfs_get_fd_info(r.fd, &r.id) != 0) {
            end_recording(channels);
            return fail("cannot start recording channel %s (disk full or too many streams?)",
                        std::to_string(c));
        }
    }
    return 0;
}

// Frames whose write call has returned, for the message of a power cut.
unsigned long frames_written = 0;

void report_power_cut(const power_cut::CutReport& report)
{
    print("power cut at device write %llu: %lu frames handed to the library (their write "
           "calls returned); no segment was closed and the disk was not unmounted\n",
           report.write_number, frames_written);
}

// With --cut-after-writes, every device handle opened from now on counts
// the writes and cuts the power at the one asked for.
void arm_power_cut(const RecordRequest& request)
{
    if (request.cut_after_writes == 0)
        return;
    power_cut::Settings settings;
    settings.mode = power_cut::Mode::Drop;
    settings.cut_at = request.cut_after_writes;
    settings.exit_code = 0;
    settings.on_cut = report_power_cut;
    power_cut::install(settings);
}

// The channels take turns, a frame each, as a recorder's channels deliver
// them, and the simulated clock runs as the frames say. Adds what was
// written to `bytes`; on a failed write ends the recording and reports it.
bool write_channels(std::vector<Recording>& channels, const RecordRequest& request,
                    unsigned long long& bytes)
{
    Progress progress(request.seconds);
    FrameBatch batch;
    const unsigned fps = channels.front().source.config().fps;
    for (unsigned long frame = 0; frame < (unsigned long)request.seconds * fps; frame++) {
        for (Recording& r : channels) {
            batch.clear();
            r.source.append_frame(batch);
            const int len = int(batch.bytes.size());
            if (api_qzfs_write_video_data(r.fd, batch.bytes.data(), len, int(batch.infos.size()),
                                          batch.infos.empty() ? nullptr : batch.infos.data()) != len) {
                progress.finish();
                const unsigned at = request.first + unsigned(frame / fps);
                char when[16];
                snprintf(when, sizeof(when), "%02u:%02u:%02u", at / 3600, at / 60 % 60, at % 60);
                end_recording(channels);
                fail("writing failed (disk full?) %s",
                     "on channel " + std::to_string(r.source.config().channel) + " at " + when +
                         "; what came before is kept");
                return false;
            }
            bytes += (unsigned long long)len;
            frames_written++;
        }
        if (frame % fps == fps - 1)
            progress.update(unsigned(frame / fps) + 1, bytes);
    }
    progress.finish();
    return true;
}

// Closes the channels' segments, lets the disk go and says what was
// recorded, and how fast, since `began`.
int finish_recording(std::vector<Recording>& channels, const RecordRequest& request,
                     unsigned long long bytes, std::chrono::steady_clock::time_point began)
{
    int failed_close = 0;
    for (Recording& r : channels) {
        if (api_qzfs_close_stream_segment(r.fd) != 0)
            failed_close++;
        r.fd = -1;
    }
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    end_recording(channels);
    if (failed_close != 0)
        return fail("closing %s segments failed", std::to_string(failed_close));
    for (const Recording& r : channels)
        print("channel %u: root index entry %u, segment %u\n", r.source.config().channel,
               r.id.root_index, r.id.stream_segment_index);
    const _k4t_fs_date_time_& start = request.start;
    print("recorded %u channels x %u s from 20%02u-%02u-%02u %02u:%02u:%02u: %llu bytes in %.2f s "
           "(%.1f MB/s)\n",
           request.channels, request.seconds, start.year, start.month, start.day, start.hour,
           start.minute, start.second, bytes, wall, wall > 0 ? double(bytes) / wall / 1e6 : 0.0);
    if (request.cut_after_writes != 0)
        print("no power cut: the whole run made %llu device writes\n",
               power_cut::counts().writes);
    return 0;
}

bool read_whole_file(const std::string& path, std::vector<uint8_t>& out, std::string& error)
{
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr) {
        error = "cannot open " + path + ": " + strerror(errno);
        return false;
    }
    out.clear();
    uint8_t chunk[0x10000];
    size_t got;
    while ((got = fread(chunk, 1, sizeof(chunk), file)) > 0)
        out.insert(out.end(), chunk, chunk + got);
    const bool failed = ferror(file) != 0;
    fclose(file);
    if (failed) {
        error = "cannot read " + path;
        return false;
    }
    return true;
}

// Checks an H.264 clip for recording and cuts it into access units.
bool access_units_for_recording(const std::string& path, const std::vector<uint8_t>& clip,
                                std::vector<H264AccessUnit>& units, std::string& error)
{
    if (clip.empty()) {
        error = path + " is empty";
        return false;
    }
    units = h264_split_access_units(clip.data(), clip.size());
    if (units.empty()) {
        error = path + " holds no H.264 start code: it is no Annex-B stream (with ffmpeg: "
                       "-bsf:v h264_mp4toannexb -f h264)";
        return false;
    }
    size_t first_idr = 0;
    while (first_idr < units.size() && !units[first_idr].idr)
        first_idr++;
    if (first_idr == units.size()) {
        error = path + " holds no IDR picture: a recording begins with an I-frame";
        return false;
    }
    if (first_idr > 0) {
        error = path + " has " + std::to_string(first_idr) +
                " access units before its first IDR picture, and a recording begins with an "
                "I-frame: cut the clip at a key frame";
        return false;
    }
    for (size_t i = 0; i < units.size(); i++)
        if (units[i].length > STORED_FRAME_MAX_PAYLOAD) {
            error = "access unit " + std::to_string(i) + " of " + path + " has " +
                    std::to_string(units[i].length) + " bytes, more than a frame carries (" +
                    std::to_string(STORED_FRAME_MAX_PAYLOAD) + ")";
            return false;
        }
    return true;
}

// What recording an H.264 clip is asked for, with the clip cut into its
// access units.
struct H264Request {
    unsigned channel = 0;
    unsigned fps = 0;
    _k4t_fs_date_time_ start = {};
    unsigned first = 0;      // second of the day of the first frame
    unsigned long span = 0;  // seconds from the first frame to the last
    std::string clip_path;
    std::vector<uint8_t> clip;
    std::vector<H264AccessUnit> units;
};

// Checks the options of an H.264 recording, reads the clip and checks that
// it fits into the day.
int parse_h264_request(const Args& args, H264Request& request)
{
    std::string error;
    if (!only_options(args, {"--h264", "--channel", "--start", "--fps"}, error))
        return fail("%s (record --h264 takes --channel, --start and --fps)", error);
    if (args.positional.size() != 1)
        return fail("record takes one IMAGE");
    if (args.option("--channel") == nullptr ||
        !number_option(args, "--channel", 254, 0, request.channel))
        return fail("record --h264 needs --channel C (0 to 254)");
    if (!number_option(args, "--fps", 1000, 25, request.fps) || request.fps == 0)
        return fail("--fps takes 1 to 1000 frames a second");
    const std::string* start_text = args.option("--start");
    if (start_text == nullptr || !parse_date_time(*start_text, request.start))
        return fail("record --h264 needs --start YYYY-MM-DDTHH:MM:SS (local time, 2000 to 2099)");

    request.clip_path = *args.option("--h264");
    if (!read_whole_file(request.clip_path, request.clip, error) ||
        !access_units_for_recording(request.clip_path, request.clip, request.units, error))
        return fail("%s", error);
    request.first = second_of_day(request.start);
    request.span = (request.units.size() - 1) / request.fps;
    if (request.first + request.span > 86399) {
        const std::string latest =
            request.span <= 86399
                ? format_date_time(at_second_of_day(request.start, unsigned(86399 - request.span)))
                : "";
        return fail("%s", "the clip (" + std::to_string(request.units.size()) + " frames at " +
                              std::to_string(request.fps) + " a second) would run past midnight" +
                              (latest.empty() ? std::string("; it is longer than a day")
                                              : "; start at " + latest + " at the latest"));
    }
    return 0;
}

// Writes the clip to `fd`, one write a frame, as a recorder hands over its
// frames; counts the bytes of frames and the I-frames. On a failed write
// ends the session and reports it.
bool write_h264_frames(int fd, const H264Request& request, unsigned long long& frame_bytes,
                       unsigned long& iframes)
{
    std::vector<uint8_t> frame;
    for (size_t i = 0; i < request.units.size(); i++) {
        const H264AccessUnit& unit = request.units[i];
        const _k4t_fs_date_time_ when =
            at_second_of_day(request.start, unsigned(request.first + i / request.fps));
        const uint64_t pts = uint64_t(i) * 90000u / request.fps;
        frame.clear();
        wrap_stored_frame(frame, uint8_t(request.channel), unit.idr, when, pts,
                          request.clip.data() + unit.offset, unit.length);
        _k4t_video_frame_info_ info = {};
        if (unit.idr) {
            info.hour = when.hour;
            info.minute = when.minute;
            info.second = when.second;
            info.iframe_flag = 1;
            info.offset = 0;
            info.pts_high = uint32_t(pts >> 32);
            info.pts_low = uint32_t(pts);
            iframes++;
        }
        const int len = int(frame.size());
        if (api_qzfs_write_video_data(fd, frame.data(), len, unit.idr ? 1 : 0,
                                      unit.idr ? &info : nullptr) != len) {
            end_session(fd, true);
            fail("writing frame %s failed (disk full?); what came before is kept",
                 std::to_string(i) + " at " + format_date_time(when));
            return false;
        }
        frame_bytes += (unsigned long long)len;
    }
    return true;
}

int verb_record_h264(const Args& args)
{
    H264Request request;
    if (parse_h264_request(args, request) != 0)
        return 1;
    const std::string& path = args.positional[0];
    if (mount_image(path) != 0)
        return 1;
    if (choose_disk_for_recording(path) != 0) {
        end_session(-1, true);
        return 1;
    }
    _qzfs_k4t_create_ss_para_ para = recording_request(uint8_t(request.channel), 0, request.start);
    _k4t_stream_segment_id_ id = {};
    int fd = api_qzfs_create_stream_segment(&para);
    if (fd <= 0 || api_qzfs_get_fd_info(fd, &id) != 0) {
        end_session(fd, true);
        return fail("cannot start recording channel %s (disk full or too many streams?)",
                    std::to_string(request.channel));
    }
    unsigned long long frame_bytes = 0;
    unsigned long iframes = 0;
    if (!write_h264_frames(fd, request, frame_bytes, iframes))
        return 1;
    const int closed = api_qzfs_close_stream_segment(fd);
    end_session(-1, true);
    if (closed != 0)
        return fail("closing the segment failed");
    const _k4t_fs_date_time_ last =
        at_second_of_day(request.start, unsigned(request.first + request.span));
    print("recorded %s on channel %u: %zu frames (%lu I-frames), %zu bytes of H.264 in %llu "
           "bytes of frames, from %s to %s at %u frames a second\n",
           request.clip_path.c_str(), request.channel, request.units.size(), iframes,
           request.clip.size(), frame_bytes, format_date_time(request.start).c_str(),
           format_date_time(last).c_str(), request.fps);
    print("segment %u:%u:%u\n", id.hdd_id, id.root_index, id.stream_segment_index);
    return 0;
}

} // namespace

int verb_record(const Args& args)
{
    if (args.option("--h264") != nullptr)
        return verb_record_h264(args);
    RecordRequest request;
    if (parse_record_request(args, request) != 0)
        return 1;
    if (request.overwrite)
        return record_with_overwrite(request, args.positional);
    const std::string& path = args.positional[0];
    arm_power_cut(request);
    if (mount_image(path) != 0)
        return 1;
    std::vector<Recording> channels;
    channels.reserve(request.channels);
    if (choose_disk_for_recording(path) != 0) {
        end_recording(channels);
        return 1;
    }
    if (start_channels(request, channels) != 0)
        return 1;
    const auto began = std::chrono::steady_clock::now();
    unsigned long long bytes = 0;
    if (!write_channels(channels, request, bytes))
        return 1;
    return finish_recording(channels, request, bytes, began);
}

} // namespace qzfs_tool
