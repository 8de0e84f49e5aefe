#include "recording_support.h"

#include "qzfilesystem.h"
#include "qzfs_manager.h"
#include "disk_consistency.h"

#include <algorithm>
#include <cstring>

namespace qzfs_test {

void WrittenStream::add(const FrameBatch& batch)
{
    for (_k4t_video_frame_info_ info : batch.infos) {
        info.offset += uint32_t(bytes.size());
        iframes.push_back(info);
    }
    bytes.insert(bytes.end(), batch.bytes.begin(), batch.bytes.end());
}

std::vector<uint8_t> read_through_reader(_k4t_stream_segment_id_ id)
{
    std::vector<uint8_t> all, chunk(1 << 20);
    const int fd = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0);
    EXPECT_GT(fd, 0);
    int n;
    while (fd > 0 &&
           (n = api_qzfs_read_video_data(fd, chunk.data(), int(chunk.size()), nullptr)) > 0)
        all.insert(all.end(), chunk.begin(), chunk.begin() + n);
    if (fd > 0) {
        EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
    }
    return all;
}

std::vector<std::string> disk_check_failures(CQzFileSystem* fs, const std::string& image)
{
    DiskLockGuard disk(*fs);
    powercut::DiskWalk walk;
    std::string error;
    if (!powercut::walk_disk(fs, walk, error))
        return {"the index cannot be read: " + error};
    return powercut::check_consistency(fs, image, walk).failures;
}

FrameSource channel_source(uint8_t channel)
{
    FrameSourceConfig config;
    config.channel = channel;
    return FrameSource(config);
}

FrameBatch pframe_of_size(uint8_t channel, uint32_t total)
{
    FrameBatch batch;
    batch.bytes.assign(total, 0x5A);
    batch.bytes[0] = channel;
    batch.bytes[1] = '3';
    batch.bytes[2] = 'd';
    batch.bytes[3] = 'c';
    const uint32_t payload = total - 12;
    batch.bytes[4] = uint8_t(payload);
    batch.bytes[5] = uint8_t(payload >> 8);
    batch.bytes[6] = uint8_t(payload >> 16);
    batch.bytes[7] = batch.bytes[8] = batch.bytes[9] = batch.bytes[10] = batch.bytes[11] = 0;
    return batch;
}

std::vector<uint8_t> from_first_iframe(const WrittenStream& written)
{
    return std::vector<uint8_t>(written.bytes.begin() + long(written.iframes.front().offset),
                                written.bytes.end());
}

// The whole I-frame log of a root, up to its end.
static std::vector<_iframe_index_node_dev_> read_log(CQzFileSystem* fs, uint32_t root,
                                                     std::vector<uint32_t>& chain)
{
    uint32_t ssi_num = 0, iframe_head = 0, num = 0;
    uint32_t *ssi_list = nullptr, *list = nullptr;
    std::vector<_iframe_index_node_dev_> log;
    EXPECT_EQ(0, fs->Get_stream_segment_index_block_list(root, &ssi_num, &ssi_list, &iframe_head));
    delete[] ssi_list;
    EXPECT_EQ(0, fs->Read_iframe_index_block_list(iframe_head, &num, &list));
    chain.assign(list, list + num);
    delete[] list;
    if (chain.empty())
        return log;
    const unsigned long capacity = (unsigned long)(fs->manage().block_size / 29) * chain.size();
    log.resize(capacity);
    unsigned long count = capacity;
    EXPECT_EQ(0, fs->Read_iframe_index(uint32_t(chain.size()), chain.data(), 0, &count, log.data(), 3));
    for (size_t i = 0; i < log.size(); i++) {
        if (log[i].id != IFRAME_INDEX_ID_IFRAME && log[i].id != IFRAME_INDEX_ID_BLOCK) {
            log.resize(i);
            break;
        }
    }
    return log;
}

void read_segment(CQzFileSystem* fs, const std::string& image, uint32_t root, uint32_t index,
                  SegmentOnDisk& out)
{
    out = SegmentOnDisk();
    ASSERT_EQ(0, fs->Get_stream_segment_index_dev_node(root, index, &out.node));
    if (out.node.id != NORMAL_STREAM_SEGMENT_INDEX && out.node.id != PRE_RECORD_STREAM_SEGMENT_INDEX)
        return;
    std::vector<uint32_t> chain;
    std::vector<_iframe_index_node_dev_> log = read_log(fs, root, chain);
    const uint32_t start = out.node.start_iframe;
    ASSERT_GE(start, 1u);
    ASSERT_LT(start, log.size());
    ASSERT_EQ(IFRAME_INDEX_ID_BLOCK, log[start - 1].id) << "no block entry before the first I-frame";
    ASSERT_EQ(IFRAME_INDEX_ID_IFRAME, log[start].id);

    const uint64_t block_size = fs->manage().block_size;
    const uint64_t len = out.node.len_in_bytes;
    out.entries.push_back(log[start - 1]);
    out.blocks.push_back(uint32_t(log[start].block_num));
    // Bytes of the stream up to the end of the blocks listed so far.
    uint64_t covered = block_size - log[start].block_offset;
    for (size_t i = start; i < log.size(); i++) {
        if (log[i].id == IFRAME_INDEX_ID_BLOCK) {
            if (covered >= len)
                break;
            out.blocks.push_back(uint32_t(log[i].block_num));
            covered += block_size - 4096;
        } else if (log[i].stream_segment_offset >= len) {
            break;
        }
        out.entries.push_back(log[i]);
    }
    uint64_t offset = log[start].block_offset;
    for (uint32_t block : out.blocks) {
        const uint64_t take = std::min<uint64_t>(block_size - offset, len - out.payload.size());
        std::vector<unsigned char> piece = read_bytes(image, block * block_size + offset, take);
        out.payload.insert(out.payload.end(), piece.begin(), piece.end());
        offset = 4096;
        if (out.payload.size() == len)
            break;
    }
}

static unsigned second_of(const _k4t_video_frame_info_& f)
{
    return f.hour * 3600u + f.minute * 60u + f.second;
}

void expect_segment_matches(CQzFileSystem* fs, const std::string& image,
                            const SegmentOnDisk& disk, const WrittenStream& written)
{
    ASSERT_FALSE(written.iframes.empty());
    const _k4t_video_frame_info_& first = written.iframes.front();
    const uint64_t block_size = fs->manage().block_size;
    const _stream_segment_index_node_dev_& node = disk.node;
    EXPECT_EQ(written.bytes.size() - first.offset, node.len_in_bytes);
    EXPECT_EQ(first.hour, node.start_hour);
    EXPECT_EQ(first.minute, node.start_minute);
    EXPECT_EQ(first.second, node.start_second);
    unsigned latest = 0;
    for (const auto& f : written.iframes)
        latest = std::max(latest, second_of(f));
    EXPECT_EQ(latest, node.end_hour * 3600u + node.end_minute * 60u + node.end_second);

    size_t next_iframe = 0;
    uint32_t ordinal = disk.entries.front().block_offset;
    for (const _iframe_index_node_dev_& e : disk.entries) {
        if (e.id == IFRAME_INDEX_ID_BLOCK) {
            EXPECT_EQ(ordinal++, uint32_t(e.block_offset)) << "block entries count the blocks";
            EXPECT_EQ(1u, uint32_t(e.pts_high)) << "share count";
            _qzfs_block_info_ head = read_block_head(image, block_size, e.block_num);
            EXPECT_EQ(QZFS_BLOCK_DATA, head.block_type);
            EXPECT_EQ(uint16_t(e.block_offset), uint16_t(head.block_index));
            continue;
        }
        ASSERT_LT(next_iframe, written.iframes.size()) << "more I-frames on disk than written";
        const _k4t_video_frame_info_& f = written.iframes[next_iframe++];
        EXPECT_EQ(f.hour, e.hour);
        EXPECT_EQ(f.minute, e.minute);
        EXPECT_EQ(f.second, e.second);
        EXPECT_EQ(f.pts_high, uint32_t(e.pts_high));
        EXPECT_EQ(f.pts_low, uint32_t(e.pts_low));
        EXPECT_EQ(uint64_t(f.offset - first.offset), uint64_t(e.stream_segment_offset));
        std::vector<unsigned char> at = read_bytes(image, e.block_num * block_size + e.block_offset, 4);
        EXPECT_TRUE(std::equal(at.begin(), at.end(), written.bytes.begin() + f.offset))
            << "I-frame " << next_iframe - 1 << " not where its entry says";
    }
    EXPECT_EQ(written.iframes.size(), next_iframe) << "I-frames missing from the log";
    ASSERT_EQ(node.len_in_bytes, disk.payload.size());
    EXPECT_TRUE(std::equal(disk.payload.begin(), disk.payload.end(), written.bytes.begin() + first.offset))
        << "the data blocks do not hold the bytes written";
}

void RecordingTest::SetUp()
{
    MountedImageTest::SetUp();
    format();
    mount();
    choose_work_disk();
}

void RecordingTest::choose_work_disk()
{
    ASSERT_EQ(0, api_qzfs_add_disk_to_group(0, 0));
    _qzfs_k4t_hdd_overwrite_config_ config = {0x3200000, 0x3200000, 0x3200000, 0x3200000};
    ASSERT_EQ(0, api_qzfs_config_overwrite(0, &config));
    unsigned char hdd = 255;
    ASSERT_EQ(0, api_qzfs_find_work_hdd(0, &hdd));
    ASSERT_EQ(0, hdd);
}

_opened_stream_segment_* RecordingTest::open_record(int fd)
{
    return gQzfsManager.get_opening_stream_segment_info(gQzfsManager.get_disk_ossid(fd));
}

_write_stream_segment_* RecordingTest::writer_of(int fd)
{
    _opened_stream_segment_* oss = open_record(fd);
    return oss == nullptr ? nullptr : oss->writer();
}

void RecordingTest::fill_block_exactly(int fd, FrameSource& source, WrittenStream& written)
{
    const uint32_t block_size = uint32_t(fs_->manage().block_size);
    FrameBatch batch;
    while (writer_of(fd)->block_offset > block_size ||
           block_size - writer_of(fd)->block_offset >= 100 * 1024) {
        batch.clear();
        source.append_frame(batch);
        ASSERT_EQ(int(batch.bytes.size()), write(fd, batch, written));
    }
    FrameBatch exact =
        pframe_of_size(source.config().channel, block_size - writer_of(fd)->block_offset);
    ASSERT_EQ(int(exact.bytes.size()), write(fd, exact, written));
    ASSERT_EQ(block_size, writer_of(fd)->block_offset);
}

void RecordingTest::remount()
{
    ASSERT_EQ(0, api_qzfs_delete_disk_from_group(0, 0));
    MountedImageTest::remount();
    choose_work_disk();
}

_qzfs_k4t_create_ss_para_ RecordingTest::request(uint8_t channel, uint8_t stream_type,
                                                 const _k4t_fs_date_time_& start)
{
    return recording_request(channel, stream_type, start);
}

int RecordingTest::create(_qzfs_k4t_create_ss_para_ para, _k4t_stream_segment_id_* id)
{
    int fd = api_qzfs_create_stream_segment(&para);
    if (fd > 0 && id != nullptr) {
        EXPECT_EQ(0, api_qzfs_get_fd_info(fd, id));
    }
    return fd;
}

void RecordingTest::take_every_free_block()
{
    fs_->disk_lock(1);
    _qzfs_block_info_ info = {};
    info.block_type = QZFS_BLOCK_DATA;
    unsigned long block = 0;
    while (fs_->manage().free_block > 0 && fs_->Request_free_block(1, &block, &info, 0) == 0) {
    }
    fs_->disk_lock(0);
    ASSERT_EQ(0u, fs_->manage().free_block);
}

int RecordingTest::write(int fd, const FrameBatch& batch, WrittenStream& stream)
{
    std::vector<_k4t_video_frame_info_> infos = batch.infos;
    int result = api_qzfs_write_video_data(fd, const_cast<unsigned char*>(batch.bytes.data()),
                                           int(batch.bytes.size()), int(infos.size()),
                                           infos.empty() ? nullptr : infos.data());
    if (result > 0)
        stream.add(batch);
    return result;
}

void RecordingTest::record_seconds(int fd, FrameSource& source, unsigned seconds,
                                   WrittenStream& stream)
{
    FrameBatch batch;
    for (unsigned i = 0; i < seconds * source.config().fps; i++) {
        batch.clear();
        source.append_frame(batch);
        ASSERT_EQ(int(batch.bytes.size()), write(fd, batch, stream));
    }
}

}  // namespace qzfs_test
