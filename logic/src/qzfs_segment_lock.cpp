// Lock and unlock of one whole segment by its id.
//
// A locked segment is never a victim of the overwrite planner. The lock is
// a flag with a set of reasons (lock_type, the application's numbers); a
// call replaces the set with its one reason. A segment being recorded keeps
// its lock in the writer's live node as well, since the writer writes that
// node again at every index flush and at close. The caller holds the disk
// lock.
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "system_resource_manager.h"

#include <cstring>

namespace {

// Lock number n stands for bit n - 1 of the lock type; above 32 for none.
uint32_t lock_type_of(unsigned char lock_number)
{
    return lock_number >= 1 && lock_number <= 32 ? 1u << (lock_number - 1) : 0;
}

void set_lock(_stream_segment_index_node_dev_* node, unsigned char lock_number)
{
    const uint32_t mask = lock_type_of(lock_number);
    node->lock = lock_number != 0 ? 1 : 0;
    memcpy(&node->lock_type, &mask, 4);
}

}  // namespace

// The writer's node on the disk keeps its end and length open; the live
// node takes the new lock under the writer's lock.
static int lock_live_segment(CQzFileSystem& fs, _opened_stream_segment_* writer,
                             unsigned char lock_number)
{
    _write_stream_segment_* wss = writer->writer();
    _stream_segment_index_node_dev_ node;
    if (fs.Get_stream_segment_index_dev_node(writer->root_index,
                                             wss->stream_segment_index_block_num,
                                             wss->stream_segment_index_block_list,
                                             writer->stream_segment_index, &node) != 0) {
        QZLOG_AS("Stream_segment_lock_control", "Get_stream_segment_index_dev_node failed");
        return -1;
    }
    if (!IS_NORMAL_SSIN(node.id)) {
        QZLOG_AS("Stream_segment_lock_control", "IS_NORMAL_SSIN failed");
        return -1;
    }
    set_lock(&node, lock_number);
    if (fs.Modify_stream_segment(writer->root_index, wss->stream_segment_index_block_num,
                                 wss->stream_segment_index_block_list,
                                 writer->stream_segment_index, 1, &node) != 0) {
        QZLOG_AS("Stream_segment_lock_control", "Modify stream segment failed");
        return -1;
    }
    QzfsScopedLock writer_lock(wss->lock);
    writer->ssi()->lock = node.lock;
    memcpy(&writer->ssi()->lock_type, &node.lock_type, 4);
    return 0;
}

int CQzFileSystem::Stream_segment_lock_control(const _k4t_stream_segment_id_* id,
                                               unsigned char lock_number)
{
    _opened_stream_segment_* writer = nullptr;
    if (find_opening_stream_segment_by_id(id, &writer, 2) >= 0 && writer != nullptr) {
        // The raw number is compared: a second lock with another number
        // replaces the reasons, the same number again writes nothing.
        if (writer->ssi()->lock != lock_number && lock_live_segment(*this, writer, lock_number) != 0)
            return -1;
    } else {
        _stream_segment_index_node_dev_ node;
        if (Get_stream_segment_index_dev_node(id->root_index, id->stream_segment_index, &node) != 0 ||
            !IS_NORMAL_SSIN(node.id)) {
            QZLOG("get ssid failed!");
            return -1;
        }
        set_lock(&node, lock_number);
        if (Modify_stream_segment(id->root_index, id->stream_segment_index, 0, &node) != 0) {
            QZLOG("Modify stream segment failed");
            return -1;
        }
    }
    if (lock_number == 0)
        return check_and_modify_root_info(id->root_index, nullptr) < 0 ? -1 : 0;
    _root_index_node_dev_ root;
    if (Get_root_index_dev_node(id->root_index, &root) != 0)
        return -1;
    if (root.lock != 0)
        return 0;
    root.lock = 1;
    if (Modify_root_index(id->root_index, 0, &root) != 0)
        return -1;
    _root_index_node_dev_* live_root = root_being_written(id->root_index);
    if (live_root != nullptr)
        live_root->lock = 1;
    return 0;
}
