// An output file as a stdio stream whose bytes reach the file on a thread of their own: the
// kernel's copy of each block into the page cache (a third of a recording's time) overlaps with
// reading and splitting the next input on the recording thread.
//
// Full blocks are written in order, each with pwrite at the position it was filled from. A
// partial block goes out at once, and the call waits for every block before it: that is what a
// flush, a seek, a read or closing the stream asks of the cookie, so fflush() still means the
// bytes are in the file (or reports why not), and nothing is reordered around a seek.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <thread>

class AsyncOutput {
  public:
    AsyncOutput() = default;
    ~AsyncOutput();
    AsyncOutput(const AsyncOutput &) = delete;
    AsyncOutput &operator=(const AsyncOutput &) = delete;

    // Creates or truncates `path`; false with errno set. Without a thread (none could be
    // started) every block is written by the calling thread.
    bool open(const std::string &path);
    FILE *stream() const { return stream_; }
    // Writes what is left and closes; 0, or the errno of a failed write not reported before.
    int close();

  private:
    static constexpr size_t kBlock = 512 << 10;
    static constexpr unsigned kBlocks = 3;

    struct Block {
        std::unique_ptr<uint8_t[]> data;
        size_t len = 0;
        uint64_t offset = 0;
    };

    static ssize_t cookieRead(void *cookie, char *buf, size_t size);
    static ssize_t cookieWrite(void *cookie, const char *buf, size_t size);
    static int cookieSeek(void *cookie, off64_t *offset, int whence);
    static int cookieClose(void *cookie);

    ssize_t write(const char *buf, size_t size);
    bool submit(); // hands the block being filled to the writer
    bool drain();  // submits, then waits until every block is in the file; false on a failure
    void run();    // the writer thread
    void writeOut(Block &b);
    int takeError(); // the errno of a failed write, once; the stream goes on unbuffered
    template <class Ready>
    void wait(std::atomic<bool> &sleeps, std::condition_variable &cond, Ready ready);
    void wake(std::atomic<bool> &sleeps, std::condition_variable &cond);

    int fd_ = -1;
    std::unique_ptr<char[]> stdio_buffer_; // freed after the stream that uses it
    FILE *stream_ = nullptr;
    uint64_t pos_ = 0; // the stream's position, where the next byte written goes
    Block blocks_[kBlocks];
    // Blocks handed over and blocks written so far: the block being filled is
    // blocks_[queued_ % kBlocks], and a block is this side's again once written_ passes it.
    std::atomic<uint64_t> queued_{0}, written_{0};
    std::atomic<int> error_{0}; // errno of a failed write not yet reported
    uint64_t failed_at_ = 0;    // where the file's bytes end after it (set before written_)
    bool direct_ = false;       // after a failure: each write goes to the file at once
    std::atomic<bool> stop_{false};
    bool threaded_ = false, closed_ = false;
    // A side that found nothing to do sleeps here; the other wakes it only when it sleeps.
    std::mutex mutex_;
    std::condition_variable work_, done_;
    std::atomic<bool> writer_sleeps_{false}, filler_sleeps_{false};
    std::thread thread_;
};
