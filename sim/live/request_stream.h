// One request and its answer on a connection, as httplib reads and writes them: bounded in time
// and in bytes, and ended by the end of the server.
#pragma once

#include "connection.h"

#include <httplib.h>

namespace live
{

class RequestStream final : public httplib::Stream
{
public:
    // The descriptor `stop` becomes readable when the server is to end.
    RequestStream(Connection &connection, Head head, int stop);

    const Head &head() const
    {
        return head_;
    }

    // Has the whole request been read?
    bool is_read() const
    {
        return body_left_ == 0;
    }

    // An answer that goes on for ever is bounded in time by each piece of it alone.
    void answer_for_ever();
    bool is_for_ever() const
    {
        return for_ever_;
    }

    bool is_readable() const override;
    bool is_writable() const override; // false also if the client has gone
    ssize_t read(char *bytes, std::size_t size) override;
    ssize_t write(const char *bytes, std::size_t size) override;
    void get_remote_ip_and_port(std::string &ip, int &port) const override;
    void get_local_ip_and_port(std::string &ip, int &port) const override;
    socket_t socket() const override;

private:
    bool wait(short what, Clock::time_point until);
    ssize_t read_body(char *bytes, std::size_t size);

    Connection &connection_;
    Head head_;
    int stop_;
    std::size_t head_read_ = 0;
    std::uint64_t body_left_ = 0;
    bool for_ever_ = false;
    Clock::time_point read_until_;
    Clock::time_point answer_until_;
};

} // namespace live
