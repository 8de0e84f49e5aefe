// Stream creation: a request is checked, the day's root node found or made,
// and a new segment node created below it for a writer.
#include "qzfilesystem.h"
#include "qzfs_device.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

#include <cstring>

// ------------------------------------------------------- request check

// A name is a NUL within the 17 bytes with at least one character before
// it. Without one the stream is addressed by its channel.
static int check_name_and_channel(_qzfs_k4t_create_ss_para_* para)
{
    const void* nul = memchr(para->name, '\0', sizeof(para->name));
    if (nul != nullptr && nul != para->name)
        return 0;
    memset(para->name, 0, sizeof(para->name));
    if (para->channel < 255)
        return 0;
    QZLOG("invalid channel id(channel:%d)(name len:%d)", int(para->channel),
          nul == nullptr ? int(sizeof(para->name)) : 0);
    return -1;
}

int Check_qzfs_create_ss_para(_qzfs_k4t_create_ss_para_* para)
{
    if (para->year > 99) {
        QZLOG("invalid year(%d)", int(para->year));
        return -1;
    }
    if (para->month < 1 || para->month > 12) {
        QZLOG("invalid month(%d)", int(para->month));
        return -1;
    }
    if (para->day < 1 || para->day > 31) {
        QZLOG("invalid day(%d)", int(para->day));
        return -1;
    }
    if (para->hour > 23) {
        QZLOG("invalid hour(%d)", int(para->hour));
        return -1;
    }
    if (para->minute > 59) {
        QZLOG("invalid minute(%d)", int(para->minute));
        return -1;
    }
    if (para->second > 59) {
        QZLOG("invalid second(%d)", int(para->second));
        return -1;
    }
    if (para->dst > 1) {
        QZLOG("invalid dst(%d)", int(para->dst));
        return -1;
    }
    if (para->for_pre_record > 1) {
        QZLOG("for_pre_record(%d)", int(para->for_pre_record));
        return -1;
    }
    if (para->record_type > 15) {
        QZLOG("record_type(%d)", int(para->record_type));
        return -1;
    }
    if (para->have_audio > 3 || para->tv_system > 1) {
        QZLOG("invalid have_audio(%d), tv_system(%d)", int(para->have_audio),
              int(para->tv_system));
        return -1;
    }
    return check_name_and_channel(para);
}

// ------------------------------------------------------ the day's root

static bool root_matches(const _root_index_node_mem_& node, const _qzfs_k4t_create_ss_para_* para)
{
    if (!IS_NORMAL_ROOT_INDEX(node.id) || node.year != para->year || node.month != para->month ||
        node.day != para->day || node.channel != para->channel ||
        node.stream_type != para->stream_type)
        return false;
    const char* name = pgSystemResourceManager->m_string_index.get_name(node.name_index);
    return strcmp(name == nullptr ? "" : name, para->name) == 0;
}

// Finds the root node of the request's day, channel, stream type and name
// that no writer holds, or the end of the list. 0 with *found set or not.
static int find_root_for_request(CQzFileSystem& fs, const _qzfs_k4t_create_ss_para_* para,
                                 uint32_t* root_index, bool* found)
{
    *found = false;
    for (uint32_t ri = 0;; ri++) {
        if (ri == 0xFFFFFFFF) {
            QZLOG_AS("Create_stream_segment", "pOss->root_index >= 0xffffffff");
            return -1;
        }
        // The name index of the copy is good only while the node stays
        // cached: the lookup and the name test go under one hold.
        CacheLockGuard cache;
        _root_index_node_mem_ node;
        if (fs.Get_root_index_mem_node(ri, &node) != 0) {
            QZLOG_AS("Create_stream_segment", "Get_root_index_mem_node failed(root_index:%ld)",
                     long(ri));
            return -1;
        }
        *root_index = ri;
        if (node.id == END_ROOT_INDEX)
            return 0;
        if (!root_matches(node, para))
            continue;
        QZLOG_ABOVE(2,
                    "Create_root_index_node exist(m_hdd_id:%d)(root_index:%ld)(year:%d)"
                    "(month:%d)(day:%d)(channel:%d)(stream_type:%d)(name:%s)",
                    int(fs.Get_hdd_id()), long(ri), int(para->year), int(para->month),
                    int(para->day), int(para->channel), int(para->stream_type), para->name);
        if (fs.find_opening_stream_segment_by_root_index(ri, nullptr, 2) >= 0) {
            QZLOG_AS("Create_stream_segment", "this root index recording,so continue(pre flag:%d)",
                     int(para->for_pre_record));
            continue;
        }
        *found = true;
        return 0;
    }
}

// A normal (not pre-record) request marks its record type and lock in an
// existing root node and ends the node's pre-record-only state.
static int mark_root_for_request(CQzFileSystem& fs, uint32_t root_index,
                                 const _qzfs_k4t_create_ss_para_* para, _root_index_node_dev_* root)
{
    if (para->for_pre_record != 0)
        return 0;
    uint16_t mask;
    memcpy(&mask, &root->record_type, 2);
    const uint16_t bit = uint16_t(1u << para->record_type);
    if ((mask & bit) != 0 && !(para->lock != 0 && root->lock == 0) && root->only_pre_record == 0)
        return 0;
    mask |= bit;
    memcpy(&root->record_type, &mask, 2);
    if (para->lock != 0)
        root->lock = para->lock;
    root->only_pre_record = 0;
    if (fs.Modify_root_index(root_index, 0, root) != 0) {
        QZLOG_AS("Create_stream_segment", "modify root index failed(root_index:%ld)",
                 long(root_index));
        return -1;
    }
    return 0;
}

// -------------------------------------------------------------- create

// Everything a failed creation made is undone, and the day's root node is
// retired: the next creation makes a new one.
static int fail_creation(CQzFileSystem& fs, _opened_stream_segment_* oss)
{
    if (oss->io_channel != nullptr) {
        qzfs_destroy_io_interface(oss->io_channel);
        oss->io_channel = nullptr;
    }
    _write_stream_segment_* wss = oss->writer();
    Destory_write_stream_segment(&wss);
    oss->state = nullptr;
    _root_index_node_dev_* root = oss->root();
    if (fs.Get_root_index_dev_node(oss->root_index, root) != 0)
        return -1;
    // Only a real entry is retired; the end of the list stays the end.
    if (!IS_NORMAL_ROOT_INDEX(root->id) || root->id == END_ROOT_INDEX)
        return -1;
    root->id = 0;
    fs.Modify_root_index(oss->root_index, 0, root);
    QZLOG_ABOVE(0, "this root index is error,set it bad index(%lu)!",
                (unsigned long)oss->root_index);
    return -1;
}

static void log_create_failure(const char* what, unsigned char hdd_id,
                               const _qzfs_k4t_create_ss_para_* p)
{
    QZLOG_AS("Create_stream_segment",
             "%s failed(HddId:%d)(year:%d)(month:%d)(day:%d)(channel:%d)(StreamType:%d)(name:%s)",
             what, int(hdd_id), int(p->year), int(p->month), int(p->day), int(p->channel),
             int(p->stream_type), p->name);
}

// Finds or creates the root node and reads it into the record.
static int create_or_reuse_root(CQzFileSystem& fs, _qzfs_k4t_create_ss_para_* para,
                         _opened_stream_segment_* oss)
{
    bool found = false;
    if (find_root_for_request(fs, para, &oss->root_index, &found) != 0)
        return -1;
    _root_index_node_dev_* root = oss->root();
    if (!found) {
        if (fs.Create_root_index_node(para, &oss->root_index, root) != 0) {
            log_create_failure("Create_root_index_node", fs.Get_hdd_id(), para);
            return -1;
        }
        return 0;
    }
    if (fs.Get_root_index_dev_node(oss->root_index, root) != 0) {
        QZLOG_AS("Create_stream_segment", "Get_root_index_dev_node failed(root_index:%ld)",
                 long(oss->root_index));
        return -1;
    }
    return mark_root_for_request(fs, oss->root_index, para, root);
}

int CQzFileSystem::Create_stream_segment(_qzfs_k4t_create_ss_para_* para,
                                         _opened_stream_segment_* oss,
                                         _qzfs_stream_importance_ importance)
{
    if (m_state != QZFSS_MOUNTED) {
        QZLOG("not mount(hdd_id:%d)", int(m_hdd_id));
        return -1;
    }
    _write_stream_segment_* wss = nullptr;
    Init_write_stream_segment(&wss);
    oss->state = wss;
    wss->importance = importance;
    wss->owner_stamp = uint32_t(get_block_owner_stamp());

    if (create_or_reuse_root(*this, para, oss) != 0)
        return fail_creation(*this, oss);
    uint32_t iframe_head = 0;
    if (Get_stream_segment_index_block_list(oss->root_index, &wss->stream_segment_index_block_num,
                                            &wss->stream_segment_index_block_list,
                                            &iframe_head) != 0) {
        QZLOG("Get_stream_segment_index_block_list failed");
        return fail_creation(*this, oss);
    }
    _iframe_block_info_ chain = {};
    if (Get_iframe_block_info(oss->root(), iframe_head, &chain) != 0) {
        QZLOG("Get_iframe_block_info failed");
        return fail_creation(*this, oss);
    }
    wss->iframe_block_num = chain.block_num;
    wss->iframe_block_list = chain.pBlock_list;
    wss->iframe_written_num = chain.iframe_index_num;
    wss->data_block_num = chain.block_index_num;
    wss->iframe_buffered_num = chain.iframe_buffered_num;

    const uint32_t start_iframe = wss->iframe_written_num + wss->data_block_num + 1;
    if (Create_stream_segment_index_node(oss->root_index, &wss->stream_segment_index_block_num,
                                         &wss->stream_segment_index_block_list, para,
                                         start_iframe, &oss->stream_segment_index,
                                         oss->ssi()) != 0) {
        log_create_failure("Create_stream_segment_index_node", m_hdd_id, para);
        return fail_creation(*this, oss);
    }
    oss->io_channel = qzfs_create_io_interface(m_dev_path.c_str(), bare_dev);
    if (oss->io_channel == nullptr) {
        QZLOG("m_pIo_interface->OpenIoChannel failed");
        return fail_creation(*this, oss);
    }
    wss->date_time = {para->year, para->month, para->day, para->hour,
                      para->minute, para->second, para->dst};
    return 0;
}
