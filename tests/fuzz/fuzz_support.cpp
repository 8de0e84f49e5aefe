#include "fuzz_support.h"

#include "frame_source.h"
#include "qzfilesystem_api.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace qzfs_fuzz {

static bool under_libfuzzer = false;
static bool handler_registered = false;
static bool in_input = false;
static std::string seed_dir, seed_path;

static void remove_seed()
{
    if (!seed_path.empty()) {
        unlink(seed_path.c_str());
        rmdir(seed_dir.c_str());
    }
}

// Runs at an exit from inside an input: the only exits the library makes
// are its fatal paths (exhausted memory, a root index header whose journal
// action is unknown, a cache of size 0, an unknown vector operation).
static void fatal_exit_is_expected()
{
    if (!in_input)
        return;
    static const char note[] =
        "qzfs fuzz: the library ended the process on one of its fatal paths (expected)\n";
    (void)!write(2, note, sizeof(note) - 1);
    remove_seed();
    _Exit(0);
}

void fuzzing_started() { under_libfuzzer = true; }

InputScope::InputScope()
{
    if (under_libfuzzer && !handler_registered) {
        atexit(fatal_exit_is_expected);
        handler_registered = true;
    }
    in_input = true;
}

InputScope::~InputScope() { in_input = false; }

void fail(const char* what)
{
    fprintf(stderr, "qzfs fuzz: %s\n", what);
    abort();
}

void init_library_once()
{
#ifndef QZFS_FUZZ_REPLAY  // the replay test initialises the library around each test
    static bool done = false;
    if (done)
        return;
    api_qzfs_init();
    api_qzfs_set_debug_level(0);
    done = true;
#endif
}

// Records `seconds` of small frames of `channel` from `start` as one segment.
static void record_segment(uint8_t channel, const _k4t_fs_date_time_& start, unsigned seconds)
{
    FrameSourceConfig config;
    config.channel = channel;
    config.iframe_bytes = 3000;
    config.pframe_bytes = 700;
    config.start = start;
    FrameSource source(config);
    _qzfs_k4t_create_ss_para_ para = recording_request(channel, 0, start);
    const int fd = api_qzfs_create_stream_segment(&para);
    if (fd <= 0)
        fail("the seed recording cannot create a segment");
    for (unsigned s = 0; s < seconds; s++) {
        FrameBatch batch;
        source.append_frames(batch, config.fps);
        if (api_qzfs_write_video_data(fd, batch.bytes.data(), int(batch.bytes.size()),
                                      int(batch.infos.size()), batch.infos.data()) < 0)
            fail("the seed recording cannot write");
    }
    if (api_qzfs_close_stream_segment(fd) != 0)
        fail("the seed recording cannot close its segment");
}

const std::string& seed_image(void (*while_mounted)())
{
    if (!seed_path.empty())
        return seed_path;
    init_library_once();
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/qzfs-fuzz-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr)
        fail("mkdtemp failed");
    seed_dir = pattern;
    seed_path = pattern + "/seed.img";
    atexit(remove_seed);
    const int fd = open(seed_path.c_str(), O_RDWR | O_CREAT, 0644);
    if (fd < 0 || ftruncate(fd, off_t(3ULL << 30)) != 0 || close(fd) != 0)
        fail("cannot make the seed image");
    std::string dev = seed_path;
    if (api_qzfs_fast_format(0, &dev[0]) != 0 || api_qzfs_mount(0, &dev[0]) != 0 ||
        api_qzfs_add_disk_to_group(0, 0) != 0)
        fail("cannot format and mount the seed image");
    _qzfs_k4t_hdd_overwrite_config_ config = {0x3200000, 0x3200000, 0x3200000, 0x3200000};
    unsigned char hdd = 255;
    if (api_qzfs_config_overwrite(0, &config) != 0 || api_qzfs_find_work_hdd(0, &hdd) != 0)
        fail("cannot choose the seed image for recording");
    record_segment(0, {26, 11, 21, 8, 0, 0, 0}, 6);
    record_segment(0, {26, 11, 21, 9, 30, 0, 0}, 4);
    record_segment(1, {26, 11, 22, 23, 59, 57, 0}, 5);
    if (while_mounted != nullptr)
        while_mounted();
    if (api_qzfs_delete_disk_from_group(0, 0) != 0 || api_qzfs_umount(0) != 0)
        fail("cannot unmount the seed image");
    return seed_path;
}

} // namespace qzfs_fuzz
