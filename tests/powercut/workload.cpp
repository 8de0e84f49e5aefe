#include "workload.h"

#include "qzfilesystem_api.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace powercut {

namespace {

const unsigned char kHdd = 0;
const unsigned long long kImageSize = 3ULL << 30;

const Workload kWorkloads[] = {
    {"start", 1, 3, 1},
    {"one", 1, 60, 5},
    {"four", 4, 60, 5},
};

// Group 0 holds the disk alone and records on it while 50 MiB are free.
bool choose_for_recording()
{
    _qzfs_k4t_hdd_overwrite_config_ config = {};
    config.reserve_free_size_for_record = 50ULL << 20;
    config.used_for_recording_free_size = config.reserve_free_size_for_record;
    config.start_delete_free_size = config.reserve_free_size_for_record;
    config.once_delete_size = 32ULL << 20;
    unsigned char hdd = 255;
    return api_qzfs_add_disk_to_group(kHdd, 0) == 0 && api_qzfs_config_overwrite(0, &config) == 0 &&
           api_qzfs_find_work_hdd(0, &hdd) == 0 && hdd == kHdd;
}

struct Channel {
    FrameSource source;
    int fd = -1;
    unsigned long written = 0;
    explicit Channel(uint8_t c) : source(workload_frames(c)) {}
};

bool start_channels(const Workload& workload, std::vector<Channel>& channels,
                    const LineWriter& out)
{
    for (unsigned c = 0; c < workload.channels; c++) {
        channels.emplace_back(uint8_t(c));
        _qzfs_k4t_create_ss_para_ para = recording_request(uint8_t(c), 0, workload_start());
        channels.back().fd = api_qzfs_create_stream_segment(&para);
        if (channels.back().fd <= 0) {
            out.line("fail creating the segment of channel " + std::to_string(c));
            return false;
        }
    }
    return true;
}

bool write_frame(Channel& ch, unsigned c, const LineWriter& out)
{
    FrameBatch batch;
    ch.source.append_frame(batch);
    const int len = int(batch.bytes.size());
    if (api_qzfs_write_video_data(ch.fd, batch.bytes.data(), len, int(batch.infos.size()),
                                  batch.infos.empty() ? nullptr : batch.infos.data()) != len) {
        out.line("fail writing frame " + std::to_string(ch.written) + " of channel " +
                 std::to_string(c));
        return false;
    }
    ch.written++;
    out.line("w " + std::to_string(c) + " " + std::to_string(ch.written));
    return true;
}

bool sync_channels(std::vector<Channel>& channels, const LineWriter& out)
{
    for (unsigned c = 0; c < channels.size(); c++) {
        if (api_qzfs_fsync(channels[c].fd) != 0) {
            out.line("fail api_qzfs_fsync of channel " + std::to_string(c));
            return false;
        }
        out.line("s " + std::to_string(c) + " " + std::to_string(channels[c].written));
    }
    return true;
}

// The channels take turns frame by frame; all are synced every
// `sync_every` seconds of stream.
bool record(const Workload& workload, std::vector<Channel>& channels, const LineWriter& out)
{
    const unsigned fps = workload_frames(0).fps;
    const unsigned long frames = (unsigned long)workload.seconds * fps;
    for (unsigned long f = 0; f < frames; f++) {
        for (unsigned c = 0; c < channels.size(); c++)
            if (!write_frame(channels[c], c, out))
                return false;
        if ((f + 1) % (workload.sync_every * fps) == 0 && !sync_channels(channels, out))
            return false;
    }
    return true;
}

bool close_channels(std::vector<Channel>& channels, const LineWriter& out)
{
    for (unsigned c = 0; c < channels.size(); c++) {
        if (api_qzfs_close_stream_segment(channels[c].fd) != 0) {
            out.line("fail closing the segment of channel " + std::to_string(c));
            return false;
        }
        out.line("s " + std::to_string(c) + " " + std::to_string(channels[c].written));
    }
    return true;
}

} // namespace

bool find_workload(const std::string& name, Workload& out)
{
    for (const Workload& w : kWorkloads)
        if (w.name == name) {
            out = w;
            return true;
        }
    return false;
}

std::string workload_names()
{
    std::string names;
    for (const Workload& w : kWorkloads)
        names += (names.empty() ? "" : ", ") + w.name;
    return names;
}

_k4t_fs_date_time_ workload_start() { return {26, 11, 22, 9, 0, 0, 0}; }

FrameSourceConfig workload_frames(uint8_t channel)
{
    FrameSourceConfig config;
    config.channel = channel;
    config.fps = 10;
    config.gop = 10;
    config.iframe_bytes = 96 * 1024;
    config.pframe_bytes = 24 * 1024;
    config.start = workload_start();
    return config;
}

void format_base_image(const std::string& image, const LineWriter& out)
{
    const int fd = open(image.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ftruncate(fd, off_t(kImageSize)) != 0) {
        out.line("fail cannot make " + image);
        return;
    }
    close(fd);
    api_qzfs_init();
    api_qzfs_set_debug_level(0);
    std::string path = image;
    char label[] = "power cut rig";
    if (api_qzfs_format(kHdd, &path[0], label) != 0)
        out.line("fail format of " + image);
    else
        out.line("done");
}

void run_workload(const Workload& workload, const std::string& image,
                  const power_cut::Settings& device, const LineWriter& out)
{
    api_qzfs_init();
    api_qzfs_set_debug_level(0);
    power_cut::install(device);
    std::string path = image;
    if (api_qzfs_mount(kHdd, &path[0]) != 0) {
        out.line("fail mount of the base image");
        return;
    }
    if (!choose_for_recording()) {
        out.line("fail choosing the disk for recording");
        return;
    }
    std::vector<Channel> channels;
    channels.reserve(workload.channels);
    if (!start_channels(workload, channels, out) || !record(workload, channels, out) ||
        !close_channels(channels, out))
        return;
    api_qzfs_delete_disk_from_group(kHdd, 0);
    if (api_qzfs_umount(kHdd) != 0) {
        out.line("fail unmount");
        return;
    }
    out.line("done " + std::to_string(power_cut::counts().writes));
}

WorkloadProgress read_progress(const Workload& workload, const std::vector<std::string>& lines)
{
    WorkloadProgress progress;
    progress.channels.resize(workload.channels);
    for (const std::string& line : lines) {
        const std::vector<std::string> w = words(line);
        if (w.empty())
            continue;
        if (w[0] == "done") {
            progress.finished = true;
        } else if (w[0] == "fail") {
            progress.failure = line.substr(5);
        } else if ((w[0] == "w" || w[0] == "s") && w.size() == 3) {
            const unsigned long c = strtoul(w[1].c_str(), nullptr, 10);
            const unsigned long n = strtoul(w[2].c_str(), nullptr, 10);
            if (c < progress.channels.size())
                (w[0] == "w" ? progress.channels[c].written : progress.channels[c].synced) = n;
        }
    }
    return progress;
}

ExpectedStream expected_stream(uint8_t channel, unsigned long frames)
{
    ExpectedStream stream;
    FrameSource source(workload_frames(channel));
    FrameBatch batch;
    for (unsigned long f = 0; f < frames; f++) {
        const size_t before = batch.infos.size();
        source.append_frame(batch);
        stream.ends.push_back(batch.bytes.size());
        stream.iframe.push_back(batch.infos.size() > before);
    }
    stream.bytes.swap(batch.bytes);
    return stream;
}

} // namespace powercut
