// The other sides of the request channel: a server for tests of clients, the reply FIFO of a client
// for tests of a server. They go without the functions that tests replace.
#pragma once

#include "server/channel.h"
#include "support/osd_test.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

// The functions behind the replaced ones; ld gives them these names.
extern "C" {
int __real_open(const char *path, int flags, ...);
int __real_close(int fd);
ssize_t __real_read(int fd, void *buffer, size_t count);
ssize_t __real_write(int fd, const void *buffer, size_t count);
int __real_mkfifo(const char *path, mode_t mode);
int __real_unlink(const char *path);
}

namespace channel_peer
{

// A test that could wait for the other side of a FIFO for good: that ends the whole program.
class BoundedTest : public support::OsdTest
{
protected:
    void SetUp() override
    {
        OsdTest::SetUp();
        alarm(20);
    }

    void TearDown() override
    {
        alarm(0);
        OsdTest::TearDown();
    }
};

// Calls, and then others.
inline support::Lines operator+(support::Lines first, const support::Lines &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// The bytes of a word as they go through a FIFO.
inline std::string bytes_of(std::uint32_t word)
{
    return {reinterpret_cast<const char *>(&word), sizeof word};
}

inline std::string text_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The reply FIFO, kept open for reading and writing so that no open of it waits.
class ReplyFifo
{
public:
    ReplyFifo()
    {
        __real_mkfifo(OSD_FIFO_ACK, 0600);
        fd_ = __real_open(OSD_FIFO_ACK, O_RDWR | O_NONBLOCK);
    }
    ReplyFifo(const ReplyFifo &) = delete;
    ReplyFifo &operator=(const ReplyFifo &) = delete;
    ~ReplyFifo()
    {
        __real_close(fd_);
        __real_unlink(OSD_FIFO_ACK);
    }
    std::string take_all() const
    {
        char bytes[64];
        const ssize_t got = __real_read(fd_, bytes, sizeof bytes);
        return {bytes, got < 0 ? 0 : static_cast<std::size_t>(got)};
    }

private:
    int fd_ = -1;
};

// A request, and what the server found when it came.
struct Request {
    std::string word;       // its bytes
    std::string parameters; // text of the temporary parameter file
    mode_t reply_mode;      // permissions of the reply FIFO
};

// Holds the request FIFO and replies, from a thread of its own. When it grants a stop it gives the
// FIFO up before it replies, as a server does.
class FakeServer
{
public:
    // Runs until a stop, requests() or its end. Each request gets the next of the replies, which
    // are sent byte for byte; behind the last one every request gets an ack.
    explicit FakeServer(std::vector<std::string> replies = {}) : replies_(std::move(replies))
    {
        __real_mkfifo(OSD_FIFO_REQ, 0600);
        fifo_ = __real_open(OSD_FIFO_REQ, O_RDWR); // so that it never ends
        quit_ = eventfd(0, 0);
        thread_ = std::thread([this] { serve(); });
    }

    FakeServer(const FakeServer &) = delete;
    FakeServer &operator=(const FakeServer &) = delete;

    ~FakeServer()
    {
        end();
        leave();
        __real_close(quit_);
    }

    // Ends the service and tells all that has come.
    const std::vector<Request> &requests()
    {
        end();
        return requests_;
    }

    // The same, only the words.
    std::vector<std::string> words()
    {
        std::vector<std::string> all;
        for (const Request &request : requests())
            all.push_back(request.word);
        return all;
    }

private:
    void end()
    {
        if (!thread_.joinable())
            return;
        const std::uint64_t one = 1;
        quitting_ = true;
        EXPECT_EQ(__real_write(quit_, &one, sizeof one), ssize_t{sizeof one});
        thread_.join();
    }

    void serve()
    {
        sigset_t broken_pipe; // a client that gives up must not end the program
        sigemptyset(&broken_pipe);
        sigaddset(&broken_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);
        const std::string ack = bytes_of(OSD_REPLY_ACK);
        while (fifo_ != -1 && take_request()) {
            const std::size_t number = requests_.size() - 1;
            const std::string &bytes = number < replies_.size() ? replies_[number] : ack;
            if (requests_.back().word == bytes_of(OSD_REQUEST_STOP) && bytes == ack)
                leave();
            reply(bytes);
        }
    }

    void leave()
    {
        if (fifo_ == -1)
            return;
        __real_close(fifo_);
        __real_unlink(OSD_FIFO_REQ);
        fifo_ = -1;
    }

    // False if the service is to end.
    bool take_request()
    {
        Request request{};
        while (request.word.size() < sizeof(std::uint32_t) && wait_for_bytes()) {
            char part[sizeof(std::uint32_t)];
            const ssize_t got = __real_read(fifo_, part, sizeof part - request.word.size());
            request.word.append(part, static_cast<std::size_t>(got));
        }
        if (request.word.empty())
            return false;
        struct stat reply_fifo {
        };
        stat(OSD_FIFO_ACK, &reply_fifo);
        request.reply_mode = reply_fifo.st_mode & 07777;
        request.parameters = text_of(OSD_TMP_PARAM);
        requests_.push_back(std::move(request));
        return true;
    }

    bool wait_for_bytes() const
    {
        pollfd sources[] = {{fifo_, POLLIN, 0}, {quit_, POLLIN, 0}};
        poll(sources, 2, -1);
        return (sources[0].revents & POLLIN) != 0;
    }

    void reply(const std::string &bytes) const
    {
        int fd = -1;
        while (fd == -1 && !quitting_) {
            fd = __real_open(OSD_FIFO_ACK, O_WRONLY | O_NONBLOCK); // fails until a client waits
            if (fd == -1)
                std::this_thread::yield();
        }
        if (fd == -1)
            return;
        if (__real_write(fd, bytes.data(), bytes.size()) == -1) {
            EXPECT_EQ(errno, EPIPE);
        }
        __real_close(fd);
    }

    std::vector<std::string> replies_;
    std::vector<Request> requests_;
    std::atomic<bool> quitting_ = false;
    int fifo_ = -1;
    int quit_ = -1;
    std::thread thread_;
};

} // namespace channel_peer
