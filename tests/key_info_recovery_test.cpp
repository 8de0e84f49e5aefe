// A recorded disk whose block table is damaged: the mount mends it from the
// other copy or by a merge with the blocks' own records, a scan makes a new
// one when no key info block is left; the recordings then read back whole,
// and a second mount finds nothing to mend.
#include "recording_support.h"

#include "qzfilesystem.h"
#include "qzfs_manager.h"

#include <cstring>
#include <functional>
#include <map>
#include <random>

using namespace qzfs_test;

namespace {

// The 3 GiB image of RecordingTest: blocks of 4 MiB, key places 65 and 465.
const unsigned long BS = 4 * MiB, KEY = 65, BAK = 465, TOTAL = 752;
const unsigned long FREE_BLOCK = 600;  // far above what the recordings take
const _k4t_fs_date_time_ kMorning = {26, 11, 21, 8, 0, 0, 0};

struct Recording {
    _k4t_stream_segment_id_ id;
    WrittenStream written;
};

class KeyInfoRecovery : public RecordingTest {
protected:
    void SetUp() override
    {
        RecordingTest::SetUp();
        for (uint8_t channel = 0; channel < 2; channel++) {
            Recording r;
            FrameSource source = channel_source(channel);
            const int fd = create(request(channel, 0, kMorning), &r.id);
            ASSERT_GT(fd, 0);
            record_seconds(fd, source, channel == 0 ? 24 : 12, r.written);
            ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
            recordings_.push_back(r);
        }
        ASSERT_EQ(0, api_qzfs_delete_disk_from_group(0, 0));
        umount();
        table_ = table_of(KEY);
        for (unsigned long b = 0; b < TOTAL; b++)
            if (table_[b].block_type == QZFS_BLOCK_DATA)
                data_.push_back(b);
        ASSERT_GE(data_.size(), 3u);
        ASSERT_EQ(QZFS_BLOCK_FREE, table_[FREE_BLOCK].block_type);
    }

    std::vector<_qzfs_block_info_> table_of(unsigned long key)
    {
        std::vector<unsigned char> bytes =
            read_bytes(image_, (unsigned long long)key * BS + QZFS_KEY_TABLE_OFFSET, TOTAL * 32);
        std::vector<_qzfs_block_info_> table(TOTAL);
        memcpy(table.data(), bytes.data(), bytes.size());
        return table;
    }
    void damage_record(unsigned long key, unsigned long block)
    {
        damage_byte(image_, table_record_offset(BS, key, block) + 4);
    }
    void damage_head(unsigned long block) { damage_byte(image_, (unsigned long long)block * BS + 4); }
    void damage_key_header(unsigned long key)
    {
        damage_byte(image_, (unsigned long long)key * BS + QZFS_KEY_HEADER_OFFSET + 40);
    }

    // The mended table: the records of `changed` have the type it gives
    // them, every other record is as before the damage, and the backup is
    // the primary byte for byte.
    void expect_table_mended(const std::map<unsigned long, uint8_t>& changed)
    {
        std::vector<_qzfs_block_info_> now = table_of(KEY);
        for (unsigned long b = 0; b < TOTAL; b++) {
            auto type = changed.find(b);
            if (type != changed.end())
                EXPECT_EQ(type->second, now[b].block_type) << "block " << b;
            else
                EXPECT_EQ(0, memcmp(&table_[b], &now[b], 32)) << "block " << b;
        }
        EXPECT_EQ(read_bytes(image_, (unsigned long long)KEY * BS, BS),
                  read_bytes(image_, (unsigned long long)BAK * BS, BS));
    }

    // Every recording reads back as written and the disk checks find no
    // more than `known` faults (a damaged block head stays as it is); a
    // second mount then has nothing to mend and writes no key block.
    void expect_recordings_whole_and_settled(size_t known = 0)
    {
        mount();
        for (const Recording& r : recordings_)
            EXPECT_EQ(from_first_iframe(r.written), read_through_reader(r.id));
        EXPECT_EQ(known, disk_check_failures(fs_, image_).size());
        umount();
        const std::vector<unsigned char> keys_before =
            read_bytes(image_, (unsigned long long)KEY * BS, BS);
        mount();
        EXPECT_EQ(QZFS_KEY_REPAIR_NONE, fs_->key_repair().level);
        umount();
        EXPECT_EQ(keys_before, read_bytes(image_, (unsigned long long)KEY * BS, BS));
    }

    std::vector<Recording> recordings_;
    std::vector<_qzfs_block_info_> table_;  // the primary's table before any damage
    std::vector<unsigned long> data_;       // the recordings' data blocks
};

struct DamageCase {
    const char* what;
    std::function<void()> damage;
    int level;
    unsigned long loaded_from, copied_from;
    unsigned long from_other_copy, from_block_head, marked_bad;
};

TEST_F(KeyInfoRecovery, MountMendsTheTableFromWhatIsLeft)
{
    const unsigned long d0 = data_[0], d1 = data_[1];
    const unsigned long run_from = KEY + 1, run_to = data_.back() + 8;  // index, data and free
    unsigned long run_used = 0;
    for (unsigned long b = run_from; b < run_to; b++)
        run_used += table_[b].block_type != QZFS_BLOCK_FREE;
    const unsigned long run_free = run_to - run_from - run_used;
    const DamageCase cases[] = {
        {"a record of the primary", [=] { damage_record(KEY, d0); },
         QZFS_KEY_REPAIR_COPY, KEY, BAK, 0, 0, 0},
        {"a record of the backup", [=] { damage_record(BAK, d0); },
         QZFS_KEY_REPAIR_BACKUP, KEY, KEY, 0, 0, 0},
        {"different records of each copy",
         [=] { damage_record(KEY, d0); damage_record(BAK, d1); },
         QZFS_KEY_REPAIR_MERGE, KEY, KEY, 1, 0, 0},
        {"the same record of both copies",
         [=] { damage_record(KEY, d1); damage_record(BAK, d1); },
         QZFS_KEY_REPAIR_MERGE, KEY, KEY, 0, 1, 0},
        {"a run of records of both copies",
         [=] {
             for (unsigned long b = run_from; b < run_to; b++) {
                 damage_record(KEY, b);
                 damage_record(BAK, b);
             }
         },
         QZFS_KEY_REPAIR_MERGE, KEY, KEY, 0, run_used, run_free},
        {"a block's own head", [=] { damage_head(d0); },
         QZFS_KEY_REPAIR_NONE, KEY, 0, 0, 0, 0},
        {"the primary's header", [=] { damage_key_header(KEY); },
         QZFS_KEY_REPAIR_BACKUP, BAK, BAK, 0, 0, 0},
        {"garbage over the whole primary",
         [=] {
             std::vector<unsigned char> noise(BS);
             std::mt19937 random(23);
             for (unsigned char& byte : noise)
                 byte = (unsigned char)random();
             write_bytes(image_, (unsigned long long)KEY * BS, noise);
         },
         QZFS_KEY_REPAIR_BACKUP, BAK, BAK, 0, 0, 0},
    };
    const std::string pristine = scratch_.path("pristine.img");
    ASSERT_EQ(0, run_command("cp --sparse=always " + image_ + " " + pristine).status);
    for (const DamageCase& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(0, run_command("cp --sparse=always " + pristine + " " + image_).status);
        c.damage();
        mount();
        const qzfs_key_repair_report report = fs_->key_repair();
        EXPECT_EQ(c.level, report.level);
        EXPECT_EQ(c.loaded_from, report.loaded_from);
        EXPECT_EQ(c.copied_from, report.copied_from);
        EXPECT_EQ(c.from_other_copy, report.from_other_copy);
        EXPECT_EQ(c.from_block_head, report.from_block_head);
        EXPECT_EQ(c.marked_bad, report.marked_bad);
        EXPECT_EQ(KEY, fs_->manage().key_block);
        EXPECT_EQ(BAK, fs_->manage().bak_key_block);
        umount();
        // Free blocks have never been written: with both records lost no
        // witness is left, and they are bad from now on.
        std::map<unsigned long, uint8_t> lost;
        for (unsigned long b = run_from; b < run_to && c.marked_bad != 0; b++)
            if (table_[b].block_type == QZFS_BLOCK_FREE)
                lost[b] = QZFS_BLOCK_BAD;
        expect_table_mended(lost);
        expect_recordings_whole_and_settled(c.level == QZFS_KEY_REPAIR_NONE ? 1 : 0);
    }
}

// With no key info block left the mount fails; the recovery with the scan
// allowed writes a new table from the blocks' own records.
TEST_F(KeyInfoRecovery, ScanMakesANewTableWhenBothHeadersAreGone)
{
    damage_key_header(KEY);
    damage_key_header(BAK);
    std::string dev = image_;
    const std::string before = image_fingerprint(image_);
    expect_result_and_log(-1, "get disk manage info failed",
                          [&] { return api_qzfs_disk_recovery(0, &dev[0], nullptr); });
    EXPECT_NE(0, api_qzfs_mount(0, &dev[0]));
    EXPECT_EQ(before, image_fingerprint(image_));

    {
        CQzFileSystem recovery;
        ASSERT_EQ(0, recovery.recover_key_info(&dev[0], 1));
        const qzfs_key_repair_report& report = recovery.key_repair();
        EXPECT_EQ(QZFS_KEY_REPAIR_SCAN, report.level);
        EXPECT_EQ(KEY, report.loaded_from);
        EXPECT_EQ(BAK, report.backup_written);
        EXPECT_GT(report.from_block_head, data_.size());
    }
    // The new table is the old one, but for the blocks behind each data
    // partition's pre-created files: the shell's layout on the disk lists
    // only the first blocks of a partition as system, and those behind,
    // never written, come back free.
    std::map<unsigned long, uint8_t> tail;
    for (unsigned long b = 705; b < TOTAL; b++)
        tail[b] = QZFS_BLOCK_FREE;
    expect_table_mended(tail);
    expect_recordings_whole_and_settled();
}

// The application's recovery call mends the key info first, and leaves the
// disk unmounted.
TEST_F(KeyInfoRecovery, RecoveryCallMendsTheKeyInfoBeforeTheRebuild)
{
    damage_record(KEY, data_[0]);
    std::string dev = image_;
    expect_result_and_log(0, "********************GORGEOUS END********************",
                          [&] { return api_qzfs_disk_recovery(0, &dev[0], nullptr); }, 0);
    EXPECT_EQ(nullptr, gQzfsManager.get_file_system(0));
    expect_table_mended({});
    expect_recordings_whole_and_settled();
}

}  // namespace
