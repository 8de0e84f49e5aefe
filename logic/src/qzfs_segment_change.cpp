// Pieces shared by the changes of one segment; see qzfs_segment_change.h.
#include "qzfs_segment_change.h"

#include "qzfs_log.h"
#include "system_resource_manager.h"

#include <cstring>

std::vector<uint32_t> qzfs_take_chain(uint32_t* list, uint32_t num)
{
    std::vector<uint32_t> chain;
    if (list != nullptr)
        chain.assign(list, list + num);
    delete[] list;
    return chain;
}

_opened_stream_segment_* qzfs_segment_writer(CQzFileSystem& fs, unsigned long root_index,
                                             unsigned long segment)
{
    _k4t_stream_segment_id_ id;
    id.hdd_id = fs.Get_hdd_id();
    id.root_index = uint32_t(root_index);
    id.stream_segment_index = uint32_t(segment);
    _opened_stream_segment_* writer = nullptr;
    if (fs.find_opening_stream_segment_by_id(&id, &writer, 2) < 0)
        return nullptr;
    return writer;
}

segment_copy::segment_copy()
{
    memset(&root, 0, sizeof(root));
    memset(&node, 0, sizeof(node));
}

int qzfs_copy_live_segment(_opened_stream_segment_* writer, segment_copy* out)
{
    const _write_stream_segment_* wss = writer->writer();
    out->writer = writer;
    memcpy(&out->root, writer->root_node, sizeof(out->root));
    writer_node_snapshot(writer, &out->node);  // the writer grows its length meanwhile
    const uint64_t live = segment_len_of(out->node);
    set_segment_len(out->node, live >= wss->delete_len ? live - wss->delete_len : 0);
    if (!writer_start_confirmed(writer) || segment_len_of(out->node) == 0 ||
        segment_start_iframe_of(out->node) == 0) {
        QZLOG("FATAL((pWss->confirm_start_iframe == K4T_FS_FALSE) || (ssind.len_in_bytes == 0))");
        return -1;
    }
    out->ssi_blocks.assign(wss->stream_segment_index_block_list,
                           wss->stream_segment_index_block_list +
                               wss->stream_segment_index_block_num);
    out->iframe_blocks.assign(wss->iframe_block_list,
                              wss->iframe_block_list + wss->iframe_block_num);
    return 0;
}

int qzfs_copy_closed_segment(CQzFileSystem& fs, segment_copy* out, bool show_start)
{
    _root_index_node_mem_ rinm;
    memset(&rinm, 0, sizeof(rinm));
    if (fs.Get_root_index_mem_node(out->root_index, &rinm) != 0 || !IS_NORMAL_ROOT_INDEX(rinm.id)) {
        QZLOG("(IS_NORMAL_ROOT_INDEX(rinm.id) == 0)(root_index:%ld)(stream_segment_index:%ld)",
              long(out->root_index), long(out->segment));
        return -1;
    }
    uint32_t ssi_num = 0, iframe_head = 0;
    uint32_t* ssi_list = nullptr;
    bool read = fs.Get_root_index_dev_node(out->root_index, &out->root) == 0 &&
                fs.Get_stream_segment_index_block_list(out->root_index, &ssi_num, &ssi_list,
                                                       &iframe_head) == 0;
    out->ssi_blocks = qzfs_take_chain(ssi_list, ssi_num);
    read = read && fs.Get_stream_segment_index_dev_node(out->root_index, ssi_num,
                                                        out->ssi_blocks.data(), out->segment,
                                                        &out->node) == 0;
    if (!read || segment_start_iframe_of(out->node) == 0) {
        if (show_start)
            QZLOG("Get_stream_segment_index_dev_node failed(%ld)(%ld)(%lu)",
                  long(out->root_index), long(out->segment),
                  (unsigned long)segment_start_iframe_of(out->node));
        else
            QZLOG("Get_stream_segment_index_dev_node failed(%ld)(%ld)", long(out->root_index),
                  long(out->segment));
        return -1;
    }
    if (out->node.id != NORMAL_STREAM_SEGMENT_INDEX &&
        out->node.id != PRE_RECORD_STREAM_SEGMENT_INDEX) {
        QZLOG("this segment is free(id:%d)", out->node.id);
        return -1;
    }
    uint32_t iframe_num = 0;
    uint32_t* iframe_list = nullptr;
    const int got = fs.Read_iframe_index_block_list(iframe_head, &iframe_num, &iframe_list);
    out->iframe_blocks = qzfs_take_chain(iframe_list, iframe_num);
    if (got != 0) {
        out->iframe_blocks.clear();
        QZLOG(" Read_iframe_index_block_list failed(start:%ld)", long(iframe_head));
        return 1;
    }
    return 0;
}

void qzfs_move_live_head(_opened_stream_segment_* writer,
                         const _stream_segment_index_node_dev_& node, uint64_t cut)
{
    // The writer's thread reads and grows the live node under its lock.
    QzfsScopedLock writer_lock(writer->writer()->lock);
    _stream_segment_index_node_dev_* live = writer->ssi();
    memcpy(&live->start_iframe, &node.start_iframe, sizeof(node.start_iframe));
    live->start_hour = node.start_hour;
    live->start_minute = node.start_minute;
    live->start_second = node.start_second;
    memcpy(&live->owner_stamp, &node.owner_stamp, sizeof(node.owner_stamp));
    writer->writer()->delete_len += cut;
}

bool qzfs_block_past_segment(const CQzFileSystem& fs, const _iframe_index_node_dev_& first,
                             uint32_t blocks_passed, uint64_t len)
{
    const uint64_t block_size = fs.manage().block_size;
    const uint64_t in_first = block_size - first.block_offset;
    return in_first + uint64_t(blocks_passed) * (block_size - QZFS_DATA_BLOCK_FIRST_FRAME) >= len;
}

bool qzfs_keep_shared_block(CQzFileSystem& fs, const segment_copy& copy, uint32_t block,
                            _iframe_index_place_& entry)
{
    if (entry.node.id != IFRAME_INDEX_ID_BLOCK || block != entry.node.block_num ||
        entry.node.pts_high < 2)
        return false;
    entry.node.pts_high--;
    fs.Write_iframe_index(uint32_t(copy.iframe_blocks.size()), copy.iframe_blocks.data(),
                          entry.index, &entry.node);
    return true;
}

_action_delete_ qzfs_delete_record(const segment_copy& copy,
                                   const _iframe_index_place_& first_block,
                                   const _iframe_index_place_& last_block)
{
    _action_delete_ r;
    memset(&r, 0, sizeof(r));
    r.root_index = uint32_t(copy.root_index);
    r.stream_segment_index = uint32_t(copy.segment);
    r.start_iframe = segment_start_iframe_of(copy.node);
    r.len_in_bytes = segment_len_of(copy.node);
    r.root_index_id = copy.root.id;
    r.stream_segment_index_id = copy.node.id;
    r.start_hour = copy.node.start_hour;
    r.start_minute = copy.node.start_minute;
    r.start_second = copy.node.start_second;
    r.first_block_iframe_index = first_block.index;
    r.first_block_share_count = first_block.node.pts_high;
    const _iframe_index_place_& last =
        last_block.node.id == IFRAME_INDEX_ID_BLOCK ? last_block : first_block;
    r.last_block_iframe_index = last.index;
    r.last_block_share_count = last.node.pts_high;
    return r;
}

void qzfs_arm_delete_journal(CQzFileSystem& fs, const segment_copy& copy,
                             const _action_delete_& record)
{
    uint8_t bytes[QZFS_ACTION_DELETE_LEN];
    qzfs_action_delete_to_bytes(record, bytes);
    QZLOG_ABOVE(0, "Register_qzfs_action(%02x)(%02x)(%ld)(%lld)", copy.root.id, copy.node.id,
                long(segment_start_iframe_of(copy.node)), (long long)segment_len_of(copy.node));
    fs.Register_qzfs_action(fs.journal_block(), QZFS_ACTION_DELETE, bytes);
}
