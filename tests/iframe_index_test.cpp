// The I-frame index on real images: a long log that grows over three blocks
// and survives a remount, walks back to block entries, areas found by time,
// logs cut short by a power failure, the end mark and the sync rule of an
// append.
#include "test_support.h"

#include "qzfilesystem.h"
#include "qzfilesystem_api.h"
#include "qzfs_index_format.h"
#include "qzfs_manager.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

using namespace qzfs_test;

namespace {

typedef _iframe_index_node_dev_ Node;

const unsigned long BS = 4 * MiB;
const uint32_t PER_BLOCK = (BS / 512 - 9) * 17;  // 139111 nodes a block
const uint8_t kDate[6] = {26, 11, 5, 8, 30, 0};

// The check sum the disk keeps: byte 0 and bytes 2 to 28, modulo 256.
uint8_t node_sum(const Node& n)
{
    const unsigned char* b = reinterpret_cast<const unsigned char*>(&n);
    unsigned sum = b[0];
    for (int i = 2; i < 29; i++)
        sum += b[i];
    return uint8_t(sum);
}

// A writer's log: a block entry ahead of the I-frames of each data block,
// times rising through a day in steps, stream offsets and pts rising.
struct FakeLog {
    std::vector<Node> nodes;        // with the check sums they get on disk
    std::vector<uint32_t> entry_of; // position of each node's block entry
    std::vector<uint32_t> first_of; // position of each data block's entry
};

uint32_t second_of(const Node& n) { return n.hour * 3600u + n.minute * 60u + n.second; }

FakeLog make_log(size_t total)
{
    FakeLog log;
    uint32_t k = 0;  // I-frames so far
    for (uint32_t b = 0; log.nodes.size() < total; b++) {
        Node e;
        memset(&e, 0, sizeof(e));
        e.id = IFRAME_INDEX_ID_BLOCK;
        e.block_num = 5000 + b;
        e.block_offset = b;
        e.pts_high = 1;  // share count
        const uint32_t entry = uint32_t(log.nodes.size());
        log.first_of.push_back(entry);
        log.nodes.push_back(e);
        log.entry_of.push_back(entry);
        const uint32_t frames = 20 + b * 37 % 41;
        for (uint32_t j = 0; j < frames && log.nodes.size() < total; j++, k++) {
            Node f;
            memset(&f, 0, sizeof(f));
            f.id = IFRAME_INDEX_ID_IFRAME;
            const uint32_t t = k / 2000 * 576 + k % 2000 / 1000;
            f.hour = uint8_t(t / 3600);
            f.minute = uint8_t(t / 60 % 60);
            f.second = uint8_t(t % 60);
            f.block_num = 5000 + b;
            f.block_offset = 4096 + j * uint32_t((BS - 4096) / frames);
            const uint64_t pts = 0x1234567890ull + uint64_t(k) * 3600;
            f.pts_high = uint32_t(pts >> 32);
            f.pts_low = uint32_t(pts);
            f.stream_segment_offset = uint64_t(b) * (BS - 4096) + f.block_offset - 4096;
            log.nodes.push_back(f);
            log.entry_of.push_back(entry);
        }
    }
    // The recording ends on an I-frame a second after the one before it.
    size_t last = log.nodes.size() - 1;
    while (log.nodes[last].id != IFRAME_INDEX_ID_IFRAME)
        last--;
    if (last > 1 && log.nodes[last - 1].id == IFRAME_INDEX_ID_IFRAME) {
        Node& n = log.nodes[last];
        uint32_t t = second_of(log.nodes[last - 1]) + 1;
        n.hour = uint8_t(t / 3600), n.minute = uint8_t(t / 60 % 60), n.second = uint8_t(t % 60);
    }
    for (Node& n : log.nodes)
        n.check_sum = node_sum(n);
    return log;
}

class IframeIndex : public MountedImageTest {
protected:
    // The chain of a root node: its blocks in order.
    struct Chain {
        uint32_t num = 0;
        uint32_t* list = nullptr;
        ~Chain() { delete[] list; }
    };

    void SetUp() override
    {
        MountedImageTest::SetUp();
        format();
        mount();
    }
    // A new root node, kept through remounts by a closed segment; returns the
    // first block of its I-frame chain.
    uint32_t new_chain(int channel)
    {
        _qzfs_k4t_create_ss_para_ para;
        memset(&para, 0, sizeof(para));
        para.year = 26, para.month = 11, para.day = 5, para.channel = uint8_t(channel);
        uint32_t ri = 0;
        _root_index_node_dev_ root;
        _stream_segment_block_header_dev_ header;
        fs_->disk_lock(1);
        EXPECT_EQ(0, fs_->Create_root_index_node(&para, &ri, &root));
        EXPECT_EQ(0, fs_->Read_stream_segment_index_block_header(root.stream_segment_index_block,
                                                                 &header));
        fs_->disk_lock(0);
        add_closed_segment(fs_, ri, para);
        return header.iframe_index_block;
    }
    void load(uint32_t head, Chain& chain)
    {
        delete[] chain.list;
        chain.list = nullptr;
        fs_->disk_lock(1);
        int r = fs_->Read_iframe_index_block_list(head, &chain.num, &chain.list);
        fs_->disk_lock(0);
        ASSERT_EQ(0, r);
    }
    int append(Chain& c, unsigned long index, const Node* nodes, unsigned long count)
    {
        fs_->disk_lock(1);
        int r = fs_->Add_iframe_index(&c.num, &c.list, index, nodes, count, kDate);
        fs_->disk_lock(0);
        return r;
    }
    // Appends a log in batches of 1 to 70 nodes, as a writer flushes them.
    void append_all(Chain& c, const FakeLog& log)
    {
        uint32_t rng = 7;
        for (size_t at = 0; at < log.nodes.size();) {
            rng = rng * 1103515245u + 12345u;
            size_t n = std::min<size_t>(log.nodes.size() - at, 1 + (rng >> 16) % 70);
            // A writer's nodes carry no check sum: the append gives them one.
            std::vector<Node> batch(log.nodes.begin() + at, log.nodes.begin() + at + n);
            for (Node& node : batch)
                node.check_sum = 0xEE;
            ASSERT_EQ(0, append(c, at, batch.data(), n)) << at;
            at += n;
        }
    }
    std::vector<Node> read(const Chain& c, unsigned long index, unsigned long count, int mask = 3)
    {
        std::vector<Node> out(count);
        fs_->disk_lock(1);
        EXPECT_EQ(0, fs_->Read_iframe_index(c.num, c.list, index, &count, out.data(), mask));
        fs_->disk_lock(0);
        out.resize(count);
        return out;
    }
    // What Get_iframe_block_info counts: the chain, id-1 and id-2 nodes.
    struct Counts {
        std::vector<uint32_t> blocks;
        uint32_t iframes = 0, entries = 0;
    };
    Counts counts_of(uint32_t head)
    {
        _iframe_block_info_ info;
        memset(&info, 0xEE, sizeof(info));
        fs_->disk_lock(1);
        EXPECT_EQ(0, fs_->Get_iframe_block_info(head, &info));
        fs_->disk_lock(0);
        Counts out;
        out.blocks.assign(info.pBlock_list, info.pBlock_list + info.block_num);
        out.iframes = info.iframe_index_num;
        out.entries = info.block_index_num;
        EXPECT_EQ(0u, info.iframe_buffered_num);
        delete[] info.pBlock_list;
        return out;
    }
    // Image offset of log position `index` of a chain's first block.
    static unsigned long long slot(uint32_t block, uint32_t index)
    {
        return (unsigned long long)block * BS + 4608 + index / 17 * 512 + index % 17 * 29;
    }
};

void expect_node(const Node& want, const Node& got, const std::string& what)
{
    EXPECT_EQ(0, memcmp(&want, &got, sizeof(Node))) << what;
}

void expect_place(const FakeLog& log, uint32_t index, const _iframe_index_place_& got,
                  const char* what)
{
    EXPECT_EQ(index, got.index) << what;
    expect_node(log.nodes[index], got.node, what);
}

// What a scan of the segment's I-frames from `first` to `last` must find for
// the times `from` and `to` (seconds of the day).
void expect_area(const FakeLog& log, uint32_t first, uint32_t last, uint32_t from, uint32_t to,
                 const _time_area_iframe_info_& got)
{
    uint32_t start = 0, end = 0;
    bool has_start = false, has_end = false;
    for (uint32_t p = first; p <= last; p++) {
        if (log.nodes[p].id != IFRAME_INDEX_ID_IFRAME)
            continue;
        uint32_t t = second_of(log.nodes[p]);
        if (t <= from)
            start = p, has_start = true;
        else if (!has_end && t >= to)
            end = p, has_end = true;
    }
    ASSERT_TRUE(has_start);
    has_end = has_end && end != last;
    expect_place(log, first, got.first, "first");
    expect_place(log, log.entry_of[first], got.first_block, "first_block");
    expect_place(log, start, got.start, "start");
    expect_place(log, log.entry_of[start], got.start_block, "start_block");
    if (has_end) {
        expect_place(log, end, got.end, "end");
        expect_place(log, log.entry_of[end], got.end_block, "end_block");
    } else {
        EXPECT_EQ(0, got.end.node.id);
        EXPECT_EQ(0u, got.end.index);
    }
}

// 300,000 nodes over three blocks, appended as a writer does, come back after
// a remount by position, by kind, by count, by block and by time.
TEST_F(IframeIndex, LongLogGrowsOverThreeBlocksAndReadsBackAfterRemount)
{
    const size_t N = 300000;
    const FakeLog log = make_log(N);
    const uint32_t head = new_chain(0);
    {
        Chain c;
        load(head, c);
        ASSERT_EQ(1u, c.num);
        append_all(c, log);
        ASSERT_EQ(3u, c.num);
    }
    remount();

    Chain c;
    load(head, c);
    ASSERT_EQ(3u, c.num);
    EXPECT_EQ(head, c.list[0]);
    for (uint32_t i = 1; i < 3; i++) {
        _qzfs_block_info_ rec = read_block_head(image_, BS, c.list[i]);
        EXPECT_EQ(QZFS_BLOCK_IFRAME_INDEX, rec.block_type);
        EXPECT_EQ(i, rec.block_index);
        EXPECT_EQ(0, memcmp(kDate, &rec.year, 6));
    }
    const uint32_t iframes = uint32_t(std::count_if(
        log.nodes.begin(), log.nodes.end(), [](const Node& n) { return n.id == 1; }));
    Counts counts = counts_of(head);
    EXPECT_EQ(std::vector<uint32_t>(c.list, c.list + 3), counts.blocks);
    EXPECT_EQ(iframes, counts.iframes);
    EXPECT_EQ(N - iframes, counts.entries);
    fs_->disk_lock(1);
    EXPECT_EQ(0, fs_->check_iframe_index_block(head));
    fs_->disk_lock(0);

    // Nodes by position, across the block boundaries and at the end.
    std::vector<uint32_t> samples = {PER_BLOCK - 1, PER_BLOCK, 2 * PER_BLOCK - 1, 2 * PER_BLOCK,
                                     N - 1};
    for (uint32_t i = 0; i < N; i += 997)
        samples.push_back(i);
    for (uint32_t i : samples) {
        std::vector<Node> got = read(c, i, 1);
        ASSERT_EQ(1u, got.size()) << i;
        expect_node(log.nodes[i], got[0], "node " + std::to_string(i));
    }
    EXPECT_EQ(7u, read(c, N - 7, 100).size());  // stops at the end mark

    // The mask picks I-frames or block entries only, across a block boundary.
    for (int mask : {1, 2}) {
        std::vector<Node> want;
        for (uint32_t p = PER_BLOCK - 500; want.size() < 600; p++)
            if (log.nodes[p].id == mask)
                want.push_back(log.nodes[p]);
        std::vector<Node> got = read(c, PER_BLOCK - 500, 600, mask);
        ASSERT_EQ(600u, got.size());
        for (size_t i = 0; i < got.size(); i++)
            expect_node(want[i], got[i], "mask " + std::to_string(mask));
    }

    // Walking back from an I-frame to its block entry, in the same unit, an
    // earlier unit and the block before, on the shared or a private buffer.
    auto iframe_from = [&](uint32_t p, uint32_t entry_below) {
        while (log.nodes[p].id != 1 || log.entry_of[p] >= entry_below)
            p++;
        return p;
    };
    uint32_t last_frame = N - 1;
    while (log.nodes[last_frame].id != 1)
        last_frame--;
    const uint32_t boundary_frame = iframe_from(PER_BLOCK, PER_BLOCK);
    for (uint32_t i : {iframe_from(1, N), iframe_from(2023, 2023), iframe_from(150001, N),
                       boundary_frame, last_frame}) {
        for (int private_buffer : {0, 1}) {
            uint32_t entry_index = 0;
            Node entry, frame;
            fs_->disk_lock(1);
            int found = fs_->Find_iframe_block_index(c.num, c.list, i, &entry_index, &entry,
                                                     &frame, private_buffer);
            fs_->disk_lock(0);
            ASSERT_EQ(0, found) << i;
            EXPECT_EQ(log.entry_of[i], entry_index) << i;
            expect_node(log.nodes[entry_index], entry, "entry of " + std::to_string(i));
            expect_node(log.nodes[i], frame, "frame " + std::to_string(i));
        }
    }
    const uint32_t an_entry = log.first_of[4000];
    expect_result_and_log(-1, "FAILED(pIFind->id != IFRAME_INDEX_ID_IFRAME)", [&] {
        uint32_t idx;
        Node e;
        return fs_->Find_iframe_block_index(c.num, c.list, an_entry, &idx, &e, nullptr, 0);
    }, 2);

    auto area = [&](uint32_t start_iframe, uint64_t len, uint32_t from, uint32_t to) {
        _k4t_fs_time_ s = {uint8_t(from / 3600), uint8_t(from / 60 % 60), uint8_t(from % 60)};
        _k4t_fs_time_ e = {uint8_t(to / 3600), uint8_t(to / 60 % 60), uint8_t(to % 60)};
        _time_area_iframe_info_ got;
        fs_->disk_lock(1);
        EXPECT_EQ(0, fs_->get_stream_segment_time_area_iframe_info(c.num, c.list, start_iframe,
                                                                   len, &s, &e, got));
        fs_->disk_lock(0);
        return got;
    };
    // The whole log as one segment: times that fall on, between and
    const uint32_t day_end = second_of(log.nodes[last_frame]);
    ASSERT_EQ(day_end - 1, second_of(log.nodes[last_frame - 1]));
    // past the I-frames' times; an end on the last I-frame is no end.
    for (auto t : {std::make_pair(0u, 576u), std::make_pair(40000u, 40321u),
                   std::make_pair(47232u, 47233u), std::make_pair(day_end - 1, day_end),
                   std::make_pair(day_end - 1, 86399u)})
        expect_area(log, 1, last_frame, t.first, t.second, area(1, ~0ull, t.first, t.second));

    // A segment of 41 data blocks across the first block boundary ends with
    // its last data block, whatever follows.
    uint32_t b0 = log.nodes[log.entry_of[PER_BLOCK]].block_offset - 20, b1 = b0 + 40;
    uint32_t first = log.first_of[b0] + 1, last = log.first_of[b1 + 1] - 1;
    uint64_t len = uint64_t(b1 - b0 + 1) * (BS - 4096);
    uint32_t mid = second_of(log.nodes[(first + last) / 2]);
    expect_area(log, first, last, mid, mid + 1, area(first, len, mid, mid + 1));
    expect_area(log, first, last, mid, 86399, area(first, len, mid, 86399));

    // A segment that starts on an I-frame whose block entry lies in an
    // earlier unit: the entry is found by walking back.
    uint32_t unit_first = 2023 + 2176 * 3;
    while (log.nodes[unit_first].id != 1 || log.nodes[unit_first + 1].id != 1)
        unit_first += 2176;
    _time_area_iframe_info_ got = area(unit_first + 1, BS, 86399, 86399);
    expect_place(log, unit_first + 1, got.first, "first");
    expect_place(log, log.entry_of[unit_first + 1], got.first_block, "first_block");
    expect_place(log, log.entry_of[got.start.index], got.start_block, "start_block");
}

// A power cut while the first unit of an append is written leaves part of
// its sectors behind: the log reads to the first slot that never arrived.
// A unit that cannot be written stops the append before anything is changed.
TEST_F(IframeIndex, LogCutShortReadsToItsEnd)
{
    const FakeLog log = make_log(600);
    const uint32_t head = new_chain(1);
    Chain c;
    load(head, c);
    ASSERT_EQ(0, append(c, 0, log.nodes.data(), 400));
    // The last append covers 400..469, all in one 4 KiB unit; of that unit's
    // write, the sectors from position 408 on never arrived.
    ASSERT_EQ(0, append(c, 400, &log.nodes[400], 70));
    ASSERT_EQ(0u, 408u % 17);
    write_bytes(image_, slot(head, 408), std::vector<unsigned char>(512 * 4, 0));
    remount();
    load(head, c);
    std::vector<Node> got = read(c, 0, 1000);
    ASSERT_EQ(408u, got.size());
    expect_node(log.nodes[407], got[407], "last node before the cut");
    Counts counts = counts_of(head);
    EXPECT_EQ(408u, counts.iframes + counts.entries);

    // The writer goes on from there; the stale nodes behind stay out of reach.
    ASSERT_EQ(0, append(c, 408, &log.nodes[408], 5));
    EXPECT_EQ(413u, read(c, 0, 1000).size());

    // A damaged node reads as the end of the log, and a walk back over it fails.
    uint32_t bad = 300;
    while (log.nodes[bad].id != 1 || log.nodes[bad + 1].id != 1)
        bad++;
    const std::string at = "(" + std::to_string(bad) + ")";
    damage_byte(image_, slot(head, bad) + 20);
    std::string out = captured_stdout([&] { EXPECT_EQ(bad, read(c, 0, 1000).size()); });
    EXPECT_NE(std::string::npos, out.find("Check_iframe_index_dev_node failed" + at)) << out;
    expect_result_and_log(-1, "FAILED(IFRAME_INDEX_ID_FREE_AND_END)" + at, [&] {
        uint32_t idx;
        Node e;
        return fs_->Find_iframe_block_index(c.num, c.list, bad + 1, &idx, &e, nullptr, 0);
    });
    captured_stdout([&] { counts = counts_of(head); });
    EXPECT_EQ(bad, counts.iframes + counts.entries);

    // An append over a block boundary whose later unit cannot be reached:
    // the first block is left exactly as it was.
    uint32_t broken[2] = {head, 0x00FFFFFF};  // far past the end of the image
    std::vector<unsigned char> before = read_bytes(image_, (unsigned long long)head * BS, BS);
    fs_->disk_lock(1);
    expect_result_and_log(-1, "Seek_and_read_in_block failed", [&] {
        uint32_t num = 2;
        uint32_t* list = broken;
        return fs_->Add_iframe_index(&num, &list, PER_BLOCK - 10, log.nodes.data(), 20, kDate);
    });
    fs_->disk_lock(0);
    EXPECT_TRUE(before == read_bytes(image_, (unsigned long long)head * BS, BS));
}

// End marks at unit edges and of an empty append, the list form, changes in
// place, the debug dump, and what the checks refuse.
TEST_F(IframeIndex, EndMarksChangesInPlaceAndChecks)
{
    const FakeLog log = make_log(200);
    const uint32_t head = new_chain(2);
    Chain c;
    load(head, c);
    EXPECT_EQ(0u, read(c, 0, 10).size());  // an empty log
    Counts counts = counts_of(head);
    EXPECT_EQ(std::vector<uint32_t>{head}, counts.blocks);
    EXPECT_EQ(0u, counts.iframes + counts.entries);

    // A 4 KiB unit holds positions 0..118 behind the header: a log ending
    // there puts its end mark into the next unit, over whatever stood there.
    auto plant = [&](uint32_t index) {
        const unsigned char* b = reinterpret_cast<const unsigned char*>(&log.nodes[1]);
        write_bytes(image_, slot(head, index), std::vector<unsigned char>(b, b + 29));
    };
    plant(119);
    ASSERT_EQ(0, append(c, 0, log.nodes.data(), 119));
    EXPECT_EQ(std::vector<unsigned char>(29, 0), read_bytes(image_, slot(head, 119), 29));
    EXPECT_EQ(119u, read(c, 0, 1000).size());

    // An empty append writes the end mark at its position.
    ASSERT_EQ(0, append(c, 60, nullptr, 0));
    EXPECT_EQ(60u, read(c, 0, 1000).size());

    // The list form: empty is refused, three nodes are appended.
    std::list<Node> none, three(log.nodes.begin() + 60, log.nodes.begin() + 63);
    fs_->disk_lock(1);
    EXPECT_EQ(-1, fs_->Add_iframe_index(&c.num, &c.list, 63, none, kDate));
    EXPECT_EQ(0, fs_->Add_iframe_index(&c.num, &c.list, 60, three, kDate));
    fs_->disk_lock(0);
    std::vector<Node> got = read(c, 0, 1000);
    ASSERT_EQ(63u, got.size());
    expect_node(log.nodes[62], got[62], "list form");

    // A block entry's share count changed in place keeps a sound check sum.
    Node entry = log.nodes[log.first_of[1]];
    entry.pts_high = 2;
    fs_->disk_lock(1);
    EXPECT_EQ(0, fs_->Write_iframe_index(c.num, c.list, log.first_of[1], &entry));
    fs_->disk_lock(0);
    got = read(c, 0, 1000);
    ASSERT_EQ(63u, got.size());
    const uint32_t share_count = got[log.first_of[1]].pts_high;  // a packed field: copy it
    EXPECT_EQ(2u, share_count);
    EXPECT_EQ(node_sum(got[log.first_of[1]]), got[log.first_of[1]].check_sum);
    expect_result_and_log(-1, "error(1)(1)", [&] {
        return fs_->Write_iframe_index(c.num, c.list, PER_BLOCK + 5, &entry);
    });

    std::string dump = captured_stdout([&] { fs_->Output_iframe_index_info(c.num, c.list, 0); });
    EXPECT_EQ(std::string::npos, dump.find("(index:")) << "silent below debug level 3";
    g_qzfs_debug_level = 3;
    dump = captured_stdout([&] { fs_->Output_iframe_index_info(c.num, c.list, 0); });
    g_qzfs_debug_level = 0;
    for (const char* line : {"(index:0)(BLOCK)(block_index:5000)(block_offset:0)",
                             "(index:1)(IFRAME)(time:00:00:00)(block_index:5000)",
                             "(index:63)(END)"})
        EXPECT_NE(std::string::npos, dump.find(line)) << line;

    // An id that no node may have, with a sound check sum, fails the walks.
    Node odd = log.nodes[1];
    odd.id = 7;
    odd.check_sum = node_sum(odd);
    const unsigned char* b = reinterpret_cast<const unsigned char*>(&odd);
    write_bytes(image_, slot(head, 63), std::vector<unsigned char>(b, b + 29));
    fs_->disk_lock(1);
    expect_result_and_log(-1, "invalid IFrame id(07)", [&] {
        return fs_->check_iframe_index_block(head);
    });
    expect_result_and_log(-1, "invalid IFrame id(07)", [&] {
        _iframe_block_info_ i;
        return fs_->Get_iframe_block_info(head, &i);
    });
    expect_result_and_log(-1, "INVALID START BLOCK INDEX:0", [&] {
        _iframe_block_info_ i;
        return fs_->Get_iframe_block_info(0, &i);
    });
    const unsigned long root_block = fs_->manage().root_index_block_map.at(0);
    expect_result_and_log(-1, "this is not iframe index block", [&] {
        return fs_->check_iframe_index_block(root_block);
    });
    fs_->disk_lock(0);
}

// An append ending on an I-frame syncs the disk when its time has moved 3
// seconds on from the last sync, or 60 seconds back.
TEST_F(IframeIndex, SyncFollowsTheTimeOfTheLastIframe)
{
    const uint32_t head = new_chain(3);
    Chain c;
    load(head, c);
    FakeLog log = make_log(2);
    Node frame = log.nodes[1];
    uint32_t index = 1;
    ASSERT_EQ(0, append(c, 0, log.nodes.data(), 1));
    auto add_at = [&](uint32_t second, uint8_t id) {
        Node n = frame;
        n.id = id;
        n.hour = uint8_t(second / 3600), n.minute = uint8_t(second / 60 % 60);
        n.second = uint8_t(second % 60);
        EXPECT_EQ(0, append(c, index++, &n, 1));
        return fs_->last_sync_second();
    };
    EXPECT_EQ(0u, fs_->last_sync_second());
    EXPECT_EQ(0u, add_at(2, 1));           // 2 s ahead
    EXPECT_EQ(36000u, add_at(36000, 1));   // far ahead
    EXPECT_EQ(36000u, add_at(35970, 1));   // 30 s behind
    EXPECT_EQ(36000u, add_at(36002, 1));   // 2 s ahead
    EXPECT_EQ(36000u, add_at(40000, 2));   // a block entry never syncs
    EXPECT_EQ(36003u, add_at(36003, 1));   // 3 s ahead
    EXPECT_EQ(35943u, add_at(35943, 1));   // 60 s behind
    expect_result_and_log(1, "start sync", [&] { return add_at(36100, 1) == 36100u; }, 4);
    EXPECT_EQ(index, read(c, 0, 100).size());
}

} // namespace
