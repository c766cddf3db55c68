#include "async_output.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace {

// stdio's own buffer in front of the blocks: every write it passes on is a multiple of this
// unless it is emptied early, by a flush, a seek or a close.
constexpr size_t kStdioBuffer = 64 << 10;

} // namespace

AsyncOutput::~AsyncOutput() {
    if (stream_)
        fclose(stream_); // closes through cookieClose
    else
        close();
}

bool AsyncOutput::open(const std::string &path) {
    for (Block &b : blocks_) {
        b.data.reset(new (std::nothrow) uint8_t[kBlock]);
        if (!b.data) {
            errno = ENOMEM;
            return false;
        }
    }
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0666);
    if (fd_ < 0)
        return false;
    cookie_io_functions_t io = {cookieRead, cookieWrite, cookieSeek, cookieClose};
    stdio_buffer_.reset(new (std::nothrow) char[kStdioBuffer]);
    stream_ = stdio_buffer_ ? fopencookie(this, "w+", io) : nullptr;
    // glibc takes a buffer's size only together with the buffer.
    if (!stream_ || setvbuf(stream_, stdio_buffer_.get(), _IOFBF, kStdioBuffer) != 0) {
        int e = stream_ ? ENOMEM : errno;
        if (stream_)
            fclose(stream_);
        stream_ = nullptr;
        ::close(fd_);
        fd_ = -1;
        errno = e;
        return false;
    }
    // Only the thread that opened the stream uses it (the writer thread sees blocks, never the
    // stream), so stdio need not lock it for every call, as it does once a second thread exists.
    __fsetlocking(stream_, FSETLOCKING_BYCALLER);
    // fileno() answers with the file, as for a stream of fopen: the library's recovery after a
    // failed write cuts the file back through it. stdio itself goes through the cookie.
    stream_->_fileno = fd_;
    try {
        thread_ = std::thread([this] { run(); });
        threaded_ = true;
    } catch (const std::system_error &) {
        // Written by this thread, block by block.
    }
    return true;
}

int AsyncOutput::close() {
    if (closed_)
        return 0;
    closed_ = true;
    int e = drain() ? 0 : takeError();
    if (threaded_) {
        stop_.store(true);
        wake(writer_sleeps_, work_);
        thread_.join();
    }
    if (fd_ >= 0 && ::close(fd_) != 0 && !e)
        e = errno;
    fd_ = -1;
    return e;
}

void AsyncOutput::writeOut(Block &b) {
    size_t put = 0;
    while (put < b.len && !error_) {
        ssize_t w = pwrite(fd_, b.data.get() + put, b.len - put, off_t(b.offset + put));
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0) {
            failed_at_ = b.offset + put;
            error_ = w < 0 ? errno : EIO;
        } else {
            put += size_t(w);
        }
    }
}

int AsyncOutput::takeError() {
    // Whatever the writer still holds was never written (it stops at the first failure). From
    // here on the stream behaves as a descriptor's after a failed write: its position is where
    // the file's bytes end, and every later write goes straight to the file, unbuffered, so that
    // what stdio drops after a failure (the library's recovery purges it) is gone here too.
    if (threaded_)
        wait(filler_sleeps_, done_, [&] { return written_.load() == queued_.load(); });
    const int e = error_.exchange(0);
    pos_ = failed_at_;
    blocks_[queued_.load() % kBlocks].len = 0;
    direct_ = true;
    return e;
}

template <class Ready>
void AsyncOutput::wait(std::atomic<bool> &sleeps, std::condition_variable &cond, Ready ready) {
    // Blocks come every few hundred microseconds: a short spin catches most of them without
    // a futex wake-up, which costs the waker an interrupt to this processor.
    for (int i = 0; i < 4000; i++) {
        if (ready())
            return;
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }
    std::unique_lock<std::mutex> lock(mutex_);
    sleeps.store(true);
    while (!ready())
        cond.wait(lock);
    sleeps.store(false);
}

void AsyncOutput::wake(std::atomic<bool> &sleeps, std::condition_variable &cond) {
    if (sleeps.load()) {
        std::lock_guard<std::mutex> lock(mutex_);
        cond.notify_one();
    }
}

void AsyncOutput::run() {
    for (uint64_t next = 0;; next++) {
        wait(writer_sleeps_, work_, [&] { return queued_.load() > next || stop_.load(); });
        if (queued_.load() == next)
            return; // stopped, and nothing left
        writeOut(blocks_[next % kBlocks]);
        written_.store(next + 1);
        wake(filler_sleeps_, done_);
    }
}

bool AsyncOutput::submit() {
    const uint64_t q = queued_.load();
    Block &b = blocks_[q % kBlocks];
    if (b.len == 0)
        return true;
    if (!threaded_ || direct_) {
        writeOut(b);
        b.len = 0;
        written_.store(q + 1);
        queued_.store(q + 1);
        return !error_;
    }
    queued_.store(q + 1);
    wake(writer_sleeps_, work_);
    // The next block to fill must be out of the writer's hands.
    wait(filler_sleeps_, done_, [&] { return q + 1 - written_.load() < kBlocks; });
    blocks_[(q + 1) % kBlocks].len = 0;
    return !error_;
}

bool AsyncOutput::drain() {
    submit();
    if (threaded_ && !direct_)
        wait(filler_sleeps_, done_, [&] { return written_.load() == queued_.load(); });
    return !error_;
}

ssize_t AsyncOutput::write(const char *buf, size_t size) {
    if (error_) {
        errno = takeError();
        return -1;
    }
    if (direct_) {
        // After a failure, as a descriptor's write: at once, and short if the file takes less.
        ssize_t w;
        do
            w = pwrite(fd_, buf, size, off_t(pos_));
        while (w < 0 && errno == EINTR);
        if (w > 0)
            pos_ += uint64_t(w);
        return w;
    }
    for (size_t done = 0; done < size;) {
        Block &b = blocks_[queued_.load() % kBlocks];
        if (b.len == 0)
            b.offset = pos_;
        size_t n = kBlock - b.len < size - done ? kBlock - b.len : size - done;
        memcpy(b.data.get() + b.len, buf + done, n);
        b.len += n;
        done += n;
        pos_ += n;
        if (b.len == kBlock && !submit()) {
            errno = takeError();
            return -1;
        }
    }
    // Less than stdio's buffer: it is being emptied early, and the caller waits for the file.
    if (size % kStdioBuffer != 0 && !drain()) {
        errno = takeError();
        return -1;
    }
    return ssize_t(size);
}

ssize_t AsyncOutput::cookieWrite(void *cookie, const char *buf, size_t size) {
    return static_cast<AsyncOutput *>(cookie)->write(buf, size);
}

ssize_t AsyncOutput::cookieRead(void *cookie, char *buf, size_t size) {
    auto *self = static_cast<AsyncOutput *>(cookie);
    if (!self->drain()) {
        errno = self->takeError();
        return -1;
    }
    ssize_t r;
    do
        r = pread(self->fd_, buf, size, off_t(self->pos_));
    while (r < 0 && errno == EINTR);
    if (r > 0)
        self->pos_ += uint64_t(r);
    return r;
}

int AsyncOutput::cookieSeek(void *cookie, off64_t *offset, int whence) {
    auto *self = static_cast<AsyncOutput *>(cookie);
    if (!self->drain()) {
        errno = self->takeError(); // as a flush that fails before a seek
        return -1;
    }
    int64_t base = 0;
    if (whence == SEEK_CUR) {
        base = int64_t(self->pos_);
    } else if (whence == SEEK_END) {
        struct stat st;
        if (fstat(self->fd_, &st) != 0)
            return -1;
        base = int64_t(st.st_size);
    }
    if (*offset < -base) {
        errno = EINVAL;
        return -1;
    }
    self->pos_ = uint64_t(base + *offset);
    *offset = int64_t(self->pos_);
    return 0;
}

int AsyncOutput::cookieClose(void *cookie) {
    auto *self = static_cast<AsyncOutput *>(cookie);
    self->stream_ = nullptr;
    int e = self->close();
    if (e) {
        errno = e;
        return -1;
    }
    return 0;
}
