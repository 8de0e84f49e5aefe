// Fuzz target: the mount of a damaged disk, and everything read from it.
//
// The seed image is made once per process (see fuzz_support.h). The places
// where its metadata lies are listed as regions: both key info blocks
// (header, then block table), the written parts of the root, segment and
// I-frame index blocks, the head of every data block and the frame headers
// at the I-frames. An input is a list of
// patches, each five bytes (region, 24-bit offset in it, length up to 32)
// then the bytes, so the fuzzer spends its time on metadata and not on the
// gigabytes between.
//
// Per input the patches go into the image and come out again afterwards;
// the library sees the image through the power-cut device in overlay mode,
// so whatever it writes stays in memory and the image is the seed again for
// the next input. A mount that refuses the image must have written nothing.
// After a mount that succeeds every day is listed and queried, every
// segment found opened, read, sought and fast-played, and the disk goes.
#include "fuzz_support.h"

#include "disk_access.h"
#include "frame_source.h"
#include "power_cut.h"
#include "qzfilesystem.h"
#include "qzfs_disk_format.h"
#include "qzfs_manager.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using qzfs_fuzz::fail;

struct Region {
    unsigned long long offset;
    unsigned long length;
};

struct Seed {
    std::string image;
    int fd = -1;
    std::vector<Region> regions;
};

void add_region(Seed& seed, unsigned long long offset, unsigned long length)
{
    if (length > 0)
        seed.regions.push_back({offset, length});
}

// The written extents of [offset, offset + length), each at most 64 KiB.
void add_written_parts(Seed& seed, unsigned long long offset, unsigned long long length)
{
    const off_t end = off_t(offset + length);
    off_t at = off_t(offset);
    while (at < end) {
        const off_t data = lseek(seed.fd, at, SEEK_DATA);
        if (data < 0 || data >= end)
            break;
        off_t hole = lseek(seed.fd, data, SEEK_HOLE);
        if (hole < 0 || hole > end)
            hole = end;
        add_region(seed, (unsigned long long)data,
                   (unsigned long)std::min<off_t>(hole - data, 0x10000));
        at = hole;
    }
}

// Where the metadata of the mounted seed (disk 0) lies.
void list_regions(Seed& seed)
{
    const _qzfs_disk_manage_& manage = gQzfsManager.get_file_system(0)->manage();
    const unsigned long long bs = manage.block_size;
    const unsigned long table_bytes =
        (manage.total_block + QZFS_KEY_TABLE_FIRST_SLOT) * sizeof(_qzfs_block_info_) -
        QZFS_KEY_TABLE_OFFSET;
    for (unsigned long key : {manage.key_block, manage.bak_key_block}) {
        add_region(seed, key * bs, QZFS_KEY_TABLE_OFFSET);
        add_region(seed, key * bs + QZFS_KEY_TABLE_OFFSET, table_bytes);
    }
    std::vector<_qzfs_block_info_> table(manage.total_block);
    if (pread(seed.fd, table.data(), table.size() * sizeof(table[0]),
              off_t(manage.key_block * bs +
                    QZFS_KEY_TABLE_FIRST_SLOT * sizeof(_qzfs_block_info_))) < 0)
        fail("cannot read the seed's block table");
    for (unsigned long b = 0; b < manage.total_block; b++) {
        const uint8_t type = table[b].block_type;
        if (type == QZFS_BLOCK_ROOT_INDEX || type == QZFS_BLOCK_SEGMENT_INDEX ||
            type == QZFS_BLOCK_IFRAME_INDEX)
            add_written_parts(seed, b * bs, bs);
        else if (type == QZFS_BLOCK_DATA)
            add_region(seed, b * bs, 4096);
    }
    // The frame headers at the I-frames, as the I-frame index has them.
    IndexSlot slot;
    RootEntry root;
    for (uint32_t r = 0; disk_root_entry(0, r, slot, root) == 0 && slot != IndexSlot::End; r++) {
        IframeIndexHead head;
        std::vector<IframeEntry> entries;
        if (slot != IndexSlot::Used || disk_iframe_index(0, r, 4096, head, entries) != 0)
            continue;
        for (const IframeEntry& e : entries)
            if (e.iframe)
                add_region(seed, e.block * bs + e.offset, 64);
    }
}

Seed the_seed;

void list_seed_regions()
{
    the_seed.fd = open(qzfs_fuzz::seed_image().c_str(), O_RDWR);
    if (the_seed.fd < 0)
        fail("cannot open the seed image");
    list_regions(the_seed);
}

Seed& seed()
{
    if (the_seed.fd >= 0)
        return the_seed;
    the_seed.image = qzfs_fuzz::seed_image(list_seed_regions);
    if (the_seed.regions.empty())
        fail("the seed image has no metadata regions");
    return the_seed;
}

// Reads, seeks and fast-plays the segment `id`.
void play(_k4t_stream_segment_id_ id)
{
    _k4t_stream_segment_info_ info;
    api_qzfs_get_stream_segment_info(&id, &info);
    const int fd = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0);
    if (fd <= 0)
        return;
    std::vector<unsigned char> chunk(0x10000);
    for (int i = 0; i < 8; i++) {
        unsigned char new_segment = 0;
        if (api_qzfs_read_video_data(fd, chunk.data(), int(chunk.size()), &new_segment) <= 0)
            break;
    }
    long long at = 0;
    api_qzfs_stream_segment_tell(fd, &at);
    api_qzfs_seek_stream_segment_by_offset(fd, 5000, SEEK_SET);
    unsigned char new_segment = 0;
    api_qzfs_read_video_data(fd, chunk.data(), 4000, &new_segment);
    api_qzfs_seek_stream_segment_by_offset(fd, -3000, SEEK_END);
    api_qzfs_read_video_data(fd, chunk.data(), int(chunk.size()), &new_segment);
    _k4t_fs_date_time_ when = {info.year, info.month, info.day, info.start_time.hour,
                               info.start_time.minute, uint8_t(info.start_time.second + 2), 0};
    api_qzfs_seek_stream_segment_by_time(fd, &when);
    for (int i = 0; i < 12; i++) {
        unsigned char* data = nullptr;
        int len = 0;
        if (api_qzfs_read_next_iframe(fd, uint8_t(i % 2), &data, &len, &new_segment) <= 0)
            break;
    }
    for (int i = 0; i < 12; i++) {
        unsigned char* data = nullptr;
        int len = 0;
        if (api_qzfs_read_pre_iframe(fd, 0, &data, &len, &new_segment) <= 0)
            break;
    }
    api_qzfs_close_stream_segment(fd);
}

// Every day of the mounted disk, its query pages and the segments found.
void browse()
{
    _qzfs_k4t_hdd_info_ hdd;
    api_qzfs_get_hdd_info(0, &hdd);
    _k4t_fs_date_ dates[32];
    const int days = api_qzfs_get_stream_date_list(1, ~0ULL, dates, 32);
    for (int d = 0; d < days && d < 32; d++) {
        _k4t_calendar_stream_query_ calendar = {};
        calendar.group_bitmap = 1;
        calendar.year = dates[d].year;
        calendar.month = dates[d].month;
        calendar.channel_bitmap = 0xFFFFFFFF;
        calendar.stream_type_bitmap = ~0ULL;
        calendar.record_type_bitmap = 0xFFFF;
        api_qzfs_query_calendar(&calendar);
        _k4t_stream_query_ query = whole_day_query(dates[d].year, dates[d].month, dates[d].day);
        query.item_num_per_page = 4;
        const int handle = api_qzfs_get_query_stream_segment_handle(&query);
        if (handle < 0)
            continue;
        api_qzfs_get_total_page_num(handle);
        _k4t_stream_query_result_ rows[4];
        int num = 4;  // the room of `rows` in, the rows found out
        _k4t_stream_query_cmd_ cmd = K4T_QUERY_FIRST;
        for (int page = 0; page < 16; page++, cmd = K4T_QUERY_NEXT, num = 4) {
            if (api_qzfs_query_stream_segment(handle, cmd, &num, rows) != 0 || num <= 0)
                break;
            for (int i = 0; i < num && i < 4; i++)
                play({rows[i].hdd_id, rows[i].root_index, rows[i].stream_segment_index});
        }
        num = 4;
        api_qzfs_jump_specific_page(handle, 0, &num, rows);
        num = 4;
        api_qzfs_query_stream_segment(handle, K4T_QUERY_LAST, &num, rows);
        num = 4;
        api_qzfs_query_stream_segment(handle, K4T_QUERY_PREV, &num, rows);
        api_qzfs_close_query_stream_segment_handle(handle);
    }
}

struct Saved {
    unsigned long long offset;
    std::vector<uint8_t> bytes;
};

} // namespace

QZFS_FUZZ_TARGET(fuzz_mount)
{
    qzfs_fuzz::init_library_once();
    Seed& s = seed();
    qzfs_fuzz::InputScope scope;
    // Patch the image, keeping what each patch covered.
    std::vector<Saved> saved;
    qzfs_fuzz::Bytes in(data, size);
    while (in.left() >= 5 && saved.size() < 64) {
        const Region& r = s.regions[in.u8() % s.regions.size()];
        const unsigned long low = in.u16();
        const unsigned long at = (low | in.u8() << 16) % r.length;
        unsigned long len = in.u8() % 32 + 1;
        len = std::min(len, std::min<unsigned long>(r.length - at, in.left()));
        if (len == 0)
            break;
        Saved patch{r.offset + at, std::vector<uint8_t>(len)};
        std::vector<uint8_t> bytes(len);
        in.fill(bytes.data(), len);
        if (pread(s.fd, patch.bytes.data(), len, off_t(patch.offset)) != ssize_t(len) ||
            pwrite(s.fd, bytes.data(), len, off_t(patch.offset)) != ssize_t(len))
            fail("cannot patch the seed image");
        saved.push_back(std::move(patch));
    }

    power_cut::Settings overlay;
    overlay.mode = power_cut::Mode::Overlay;
    power_cut::install(overlay);
    std::string dev = s.image;
    if (api_qzfs_mount(0, &dev[0]) == 0) {
        if (api_qzfs_add_disk_to_group(0, 0) == 0) {
            browse();
            api_qzfs_delete_disk_from_group(0, 0);
        }
        api_qzfs_umount(0);
    } else if (power_cut::counts().writes != 0) {
        fail("a mount that refused the image wrote to it");
    }
    power_cut::uninstall();

    for (auto it = saved.rbegin(); it != saved.rend(); ++it)
        if (pwrite(s.fd, it->bytes.data(), it->bytes.size(), off_t(it->offset)) !=
            ssize_t(it->bytes.size()))
            fail("cannot restore the seed image");
    return 0;
}
