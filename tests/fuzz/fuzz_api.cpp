// Fuzz target: the exported calls with hostile parameters.
//
// Each input mounts the seed image (see fuzz_support.h) as disk 0 in group
// 0, through the power-cut device in overlay mode so that no input's writes
// reach the next one, and then makes calls: one byte picks the call, the
// bytes after it its parameters. A parameter record is either filled from
// the input whole or a sound one (the seed's day, channel, segment) with a
// few of its bytes changed, so the calls get past their first check too.
// Buffers handed to the library are as large as the call is told; what is
// hostile is the rest: ids, channels, dates, page commands, lengths,
// descriptors and handles.
#include "fuzz_support.h"

#include "frame_source.h"
#include "power_cut.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

namespace {

using qzfs_fuzz::Bytes;

// `value` as it is, or with a few bytes changed, or filled from the input.
template <typename T> T hostile(Bytes& in, T value)
{
    const uint8_t how = in.u8();
    if (how & 1) {
        in.fill(&value, sizeof(value));
    } else {
        uint8_t* bytes = reinterpret_cast<uint8_t*>(&value);
        for (int i = 0; i < (how >> 5); i++) {
            const uint8_t at = in.u8();
            bytes[at % sizeof(value)] = in.u8();
        }
    }
    return value;
}

// A descriptor or handle: one of those opened by this input, or any number.
int pick(Bytes& in, const std::vector<int>& opened)
{
    const uint8_t how = in.u8();
    if (how < 200 && !opened.empty())
        return opened[how % opened.size()];
    return int(in.u32());
}

const _k4t_fs_date_time_ kSeedTime = {26, 11, 21, 8, 0, 2, 0};

void run_calls(Bytes& in)
{
    std::vector<int> fds, handles;
    std::vector<uint8_t> buffer(0x10000);
    std::vector<_k4t_stream_query_result_> rows(256);
    const _k4t_stream_segment_id_ seed_id = {0, 0, 0};
    const _k4t_fs_time_ seed_clock = {8, 0, 3};
    for (int calls = 0; calls < 48 && in.left() > 0; calls++) {
        switch (in.u8() % 26) {
        case 0: {
            _qzfs_k4t_hdd_info_ info;
            api_qzfs_get_hdd_info(in.u8(), &info);
            break;
        }
        case 1: {
            // Every parameter is read into a variable of its own first: the
            // order in which a call's arguments are evaluated is unspecified,
            // and an input must mean the same calls to every compiler.
            const uint8_t add = in.u8(), hdd = in.u8(), group = in.u8();
            if (add & 1)
                api_qzfs_add_disk_to_group(hdd, group);
            else
                api_qzfs_delete_disk_from_group(hdd, group);
            break;
        }
        case 2: {
            unsigned char ids[256];
            const uint8_t group = in.u8();
            api_qzfs_get_disk_num_from_group(group);
            api_qzfs_get_disk_list_from_group(group, ids, int(int8_t(in.u8())));
            break;
        }
        case 3: {
            unsigned char hdd = 0;
            api_qzfs_find_work_hdd(in.u8(), &hdd);
            break;
        }
        case 4: {
            _qzfs_k4t_create_ss_para_ para = hostile(in, recording_request(in.u8() % 4, 0, kSeedTime));
            const int fd = api_qzfs_create_stream_segment(&para);
            if (fd > 0)
                fds.push_back(fd);
            break;
        }
        case 5: {
            _k4t_stream_segment_id_ id = hostile(in, seed_id);
            const uint16_t types = uint16_t(in.u16());
            const int fd = api_qzfs_open_stream_segment_by_id(&id, types, in.u8());
            if (fd > 0)
                fds.push_back(fd);
            break;
        }
        case 6: {
            _qzfs_k4t_stream_open_para_ para = hostile(
                in, _qzfs_k4t_stream_open_para_{0, 0, 0xFFFF, 1, kSeedTime});
            const int fd = api_qzfs_open_stream_segment_by_para(&para, in.u8());
            if (fd > 0)
                fds.push_back(fd);
            break;
        }
        case 7: {
            const int fd = pick(in, fds);
            _k4t_fs_date_time_ when = hostile(in, kSeedTime);
            api_qzfs_seek_stream_segment_by_time(fd, &when);
            break;
        }
        case 8: {
            const int fd = pick(in, fds);
            const long long offset = (long long)in.u64();
            api_qzfs_seek_stream_segment_by_offset(fd, offset, int(int8_t(in.u8())));
            long long at = 0;
            api_qzfs_stream_segment_tell(pick(in, fds), &at);
            break;
        }
        case 9:
            api_qzfs_close_stream_segment(pick(in, fds));
            break;
        case 10: {
            // Frames from the input: the length never passes what is there.
            const int fd = pick(in, fds);
            const size_t wanted = in.u16();  // taken before what is left is counted
            const int len = int(std::min(wanted, in.left()));
            std::vector<uint8_t> data(in.rest(), in.rest() + len);
            in.skip(size_t(len));
            _k4t_video_frame_info_ infos[8];
            const int count = int(in.u8() % 10) - 1;  // -1 to 8
            in.fill(infos, sizeof(infos));
            api_qzfs_write_video_data(fd, data.data(), len, count, infos);
            break;
        }
        case 11: {
            const int fd = pick(in, fds);
            const int size = int(in.u32() % (buffer.size() + 1));
            const int len = (in.u8() & 1) ? size : -size;
            unsigned char new_segment = 0;
            api_qzfs_read_video_data(fd, buffer.data(), len, &new_segment);
            break;
        }
        case 12: {
            const int fd = pick(in, fds);
            const uint8_t skip = in.u8();
            unsigned char* data = nullptr;
            int len = 0;
            unsigned char new_segment = 0;
            if (in.u8() & 1)
                api_qzfs_read_next_iframe(fd, skip, &data, &len, &new_segment);
            else
                api_qzfs_read_pre_iframe(fd, skip, &data, &len, &new_segment);
            break;
        }
        case 13: {
            _k4t_stream_query_ query = hostile(in, whole_day_query(26, 11, 21));
            query.item_num_per_page = std::min<uint32_t>(query.item_num_per_page, 256);
            const int handle = api_qzfs_get_query_stream_segment_handle(&query);
            if (handle >= 0)
                handles.push_back(handle);
            break;
        }
        case 14: {
            const int handle = pick(in, handles);
            int num = int(int8_t(in.u8()));  // the room: at most 127 of the 256 rows
            // Every command the enumeration can hold: a value past its range
            // would be undefined in this C++ caller already.
            const auto cmd = _k4t_stream_query_cmd_(in.u8() % 4);
            api_qzfs_query_stream_segment(handle, cmd, &num, rows.data());
            break;
        }
        case 15: {
            const int handle = pick(in, handles);
            api_qzfs_get_total_page_num(handle);
            int num = int(int8_t(in.u8()));
            api_qzfs_jump_specific_page(handle, int(in.u32()), &num, rows.data());
            break;
        }
        case 16:
            api_qzfs_close_query_stream_segment_handle(pick(in, handles));
            break;
        case 17: {
            static _k4t_calendar_stream_query_ calendar;
            calendar = _k4t_calendar_stream_query_{};
            calendar.group_bitmap = 1;
            calendar.channel_bitmap = 0xFFFFFFFF;
            calendar.record_type_bitmap = 0xFFFF;
            calendar.stream_type_bitmap = ~0ULL;
            calendar.year = 26;
            calendar.month = 11;
            const size_t head = offsetof(_k4t_calendar_stream_query_, day_info);
            if (in.u8() & 1)
                in.fill(&calendar, head);
            else
                calendar.month = in.u8();
            api_qzfs_query_calendar(&calendar);
            break;
        }
        case 18: {
            const unsigned long groups = in.u32();
            const unsigned long long types = in.u64();
            _k4t_fs_date_ dates[64];
            api_qzfs_get_stream_date_num(groups, types);
            api_qzfs_get_stream_date_list(groups, types, dates, int(int8_t(in.u8())) % 65);
            break;
        }
        case 19: {
            const unsigned long groups = in.u32();
            const unsigned long long types = in.u64(), channels = in.u64();
            _k4t_fs_record_date_info_ infos[64];
            api_qzfs_get_stream_date_info_num(groups, types, channels);
            api_qzfs_get_stream_date_info(groups, types, channels, infos, int(int8_t(in.u8())) % 65);
            break;
        }
        case 20: {
            if (in.u8() & 1) {
                _k4t_stream_segment_id_ id = hostile(in, seed_id);
                api_qzfs_stream_segment_lock_by_id(&id, in.u8());
            } else {
                _qzfs_k4t_stream_lock_para_ para = {};
                in.fill(&para, sizeof(para));
                api_qzfs_stream_segment_lock_by_time(&para, in.u8());
            }
            break;
        }
        case 21: {
            if (in.u8() & 1) {
                _k4t_stream_segment_id_ id = hostile(in, seed_id);
                api_qzfs_delete_stream_segment(&id);
            } else {
                _qzfs_k4t_delete_para_ para = {};
                in.fill(&para, sizeof(para));
                api_qzfs_delete_stream_segment_by_para(&para);
            }
            break;
        }
        case 22: {
            _k4t_stream_segment_id_ id = hostile(in, seed_id);
            api_qzfs_get_fd_info(pick(in, fds), &id);
            _k4t_stream_segment_info_ info;
            api_qzfs_get_stream_segment_info(&id, &info);
            _k4t_fs_time_ start, end;
            unsigned long long offset = 0, len = 0;
            api_qzfs_get_stream_segment_data_info(&id, &start, &end, &offset, &len);
            break;
        }
        case 23: {
            const _k4t_fs_time_ clock = hostile(in, seed_clock);
            switch (in.u8() % 5) {
            case 0:
                api_qzfs_modify_stream_segment_end_time(hostile(in, seed_id), clock);
                break;
            case 1: {
                _qzfs_k4t_modify_segment_para_ para = {};
                in.fill(&para, sizeof(para));
                api_qzfs_modify_stream_segment_info(&para);
                break;
            }
            case 2: {
                _k4t_fs_time_ start = clock;
                const int fd = pick(in, fds);
                const uint8_t mask = in.u8(), lock = in.u8();
                const unsigned long lock_type = in.u32();
                const uint8_t record_type = in.u8();
                const unsigned long long alarm = in.u64();
                api_qzfs_modify_stream_segment_info_by_fd(fd, mask, lock, lock_type, record_type,
                                                          alarm, &start);
                break;
            }
            case 3: {
                const int fd = pick(in, fds);
                const uint8_t record_type = in.u8();
                const unsigned long long alarm = in.u64();
                const uint8_t lock = in.u8();
                const unsigned long lock_type = in.u32();
                api_qzfs_modify_pre_record_info(fd, record_type, alarm, lock, lock_type, clock);
                break;
            }
            default:
                api_qzfs_overwrite_pre_record_stream(pick(in, fds), clock);
            }
            break;
        }
        case 24: {
            _k4t_fs_date_time_ now = hostile(in, kSeedTime);
            const int days = int(int8_t(in.u8()));
            if (in.u8() & 1)
                api_qzfs_auto_unlock(&now, days);
            else
                api_qzfs_auto_delete(&now, days);
            break;
        }
        default: {
            _qzfs_k4t_hdd_overwrite_config_ config = hostile(
                in, _qzfs_k4t_hdd_overwrite_config_{0x3200000, 0x3200000, 0x3200000, 0x3200000});
            const uint8_t group = in.u8();
            api_qzfs_config_overwrite(group, &config);
            if (in.u8() & 1)
                api_qzfs_disk_overwrite_small_stream(group, in.u8());
            else
                api_qzfs_fsync(pick(in, fds));
            break;
        }
        }
    }
    for (int fd : fds)
        api_qzfs_close_stream_segment(fd);
    for (int handle : handles)
        api_qzfs_close_query_stream_segment_handle(handle);
}

} // namespace

QZFS_FUZZ_TARGET(fuzz_api)
{
    std::string dev = qzfs_fuzz::seed_image();
    qzfs_fuzz::InputScope scope;
    power_cut::Settings overlay;
    overlay.mode = power_cut::Mode::Overlay;
    power_cut::install(overlay);
    if (api_qzfs_mount(0, &dev[0]) != 0)
        qzfs_fuzz::fail("the seed image does not mount");
    _qzfs_k4t_hdd_overwrite_config_ config = {0x3200000, 0x3200000, 0x3200000, 0x3200000};
    unsigned char hdd = 255;
    api_qzfs_add_disk_to_group(0, 0);
    api_qzfs_config_overwrite(0, &config);
    api_qzfs_find_work_hdd(0, &hdd);
    Bytes in(data, size);
    run_calls(in);
    for (int group = 0; group < 256; group++)
        api_qzfs_delete_disk_from_group(0, (unsigned char)group);
    api_qzfs_umount(0);
    power_cut::uninstall();
    return 0;
}
