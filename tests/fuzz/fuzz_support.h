// What the fuzz targets share: the fatal-exit handling, a reader of the
// fuzzer's bytes, and the library set up once per process.
#ifndef QZFS_FUZZ_SUPPORT_H
#define QZFS_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace qzfs_fuzz {

// Under libFuzzer (the target's LLVMFuzzerInitialize ran), an exit the
// library makes on one of its fatal paths ends the run with a note and
// status 0, so the fuzzer does not report it as a crash. Call at the start
// of every input: the handler must be registered after libFuzzer's own to
// run before it. Outside libFuzzer (the replay test) nothing is registered
// and such an exit fails the test. An exit outside an input is libFuzzer's.
void fuzzing_started();
struct InputScope {
    InputScope();
    ~InputScope();
};

// Initialises the library once per process, at debug level 0.
void init_library_once();

// Makes the seed image once per process: a sparse 3 GiB image formatted,
// mounted as disk 0 in group 0 and recorded on (three segments of two
// channels, one of them past midnight). `while_mounted` runs before it is
// unmounted (a call from it returns the path already). The image goes at
// the exit of the process. Returns its path.
const std::string& seed_image(void (*while_mounted)() = nullptr);

// Ends the process with a message: the harness itself failed.
[[noreturn]] void fail(const char* what);

// Takes the fuzzer's bytes in order; past the end it yields zeros.
class Bytes {
public:
    Bytes(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    size_t left() const { return size_ - used_; }
    uint8_t u8() { return used_ < size_ ? data_[used_++] : 0; }
    // Little endian. Each part is read by a statement of its own: the
    // operands of one expression are evaluated in no fixed order, and an
    // input must mean the same to every compiler.
    uint32_t u16()
    {
        const uint32_t low = u8();
        return low | uint32_t(u8()) << 8;
    }
    uint32_t u32()
    {
        const uint32_t low = u16();
        return low | u16() << 16;
    }
    uint64_t u64()
    {
        const uint64_t low = u32();
        return low | uint64_t(u32()) << 32;
    }
    // Fills `n` bytes of `out`, zeros past the end.
    void fill(void* out, size_t n)
    {
        const size_t take = n < left() ? n : left();
        memcpy(out, data_ + used_, take);
        memset(static_cast<uint8_t*>(out) + take, 0, n - take);
        used_ += take;
    }
    const uint8_t* rest() const { return data_ + used_; }
    void skip(size_t n) { used_ += n < left() ? n : left(); }

private:
    const uint8_t* data_;
    size_t size_;
    size_t used_ = 0;
};

} // namespace qzfs_fuzz

// Opens a target's input function. In the fuzz build each target is a
// program of its own with libFuzzer's entry points; the replay test links
// every target, each input function under the name <name>_input.
#ifdef QZFS_FUZZ_REPLAY
#define QZFS_FUZZ_TARGET(name) extern "C" int name##_input(const uint8_t* data, size_t size)
#else
#define QZFS_FUZZ_TARGET(name)                                              \
    extern "C" int LLVMFuzzerInitialize(int*, char***)                      \
    {                                                                       \
        qzfs_fuzz::fuzzing_started();                                       \
        return 0;                                                           \
    }                                                                       \
    extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
#endif

#endif
