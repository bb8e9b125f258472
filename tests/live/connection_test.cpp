// The head of a request, as it comes from a client piece by piece.
#include "connection.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

using live::Connection;
using live::Head;

class ConnectionTest : public testing::Test
{
protected:
    void SetUp() override
    {
        int ends[2] = {-1, -1};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        client_ = ends[0];
        connection_ = std::make_unique<Connection>(ends[1]);
    }

    void TearDown() override
    {
        if (client_ != -1)
            close(client_);
    }

    std::optional<Head> take(const std::string &bytes)
    {
        EXPECT_EQ(write(client_, bytes.data(), bytes.size()), ssize_t(bytes.size()));
        EXPECT_TRUE(connection_->receive());
        return connection_->take_head();
    }

    int client_ = -1;
    std::unique_ptr<Connection> connection_;
};

TEST_F(ConnectionTest, waits_for_a_whole_head)
{
    for (const char *piece : {"G", "ET / HTTP/1.1\r", "\nHost: a\r\n", "\r"})
        EXPECT_FALSE(take(piece)) << piece;
    const std::optional<Head> head = take("\nrest");
    ASSERT_TRUE(head);
    EXPECT_EQ(head->text, "GET / HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(head->body, 0u);
    EXPECT_EQ(head->refusal, 0);
    EXPECT_EQ(connection_->input, "rest");
}

TEST_F(ConnectionTest, passes_over_empty_lines_before_a_request)
{
    EXPECT_EQ(take("\r\n\r\nGET / HTTP/1.1\r\n\r\n")->text, "GET / HTTP/1.1\r\n\r\n");
    EXPECT_FALSE(take("\r\n"));
}

TEST_F(ConnectionTest, reads_the_length_of_the_body)
{
    EXPECT_EQ(take("PUT / HTTP/1.1\r\ncontent-LENGTH: \t17 \r\n\r\n")->body, 17u);
    EXPECT_EQ(take("PUT / HTTP/1.1\r\nX-Content-Length: 17\r\n\r\n")->body, 0u);
    EXPECT_EQ(take("PUT / HTTP/1.1\r\nContent-Length: 18446744073709551615\r\n\r\n")->body,
              18446744073709551615u);
    EXPECT_EQ(take("PUT / HTTP/1.1\r\nContent-Length: 18446744073709551616\r\n\r\n")->refusal, 400);
    EXPECT_EQ(take("PUT / HTTP/1.1\r\nContent-Length\r\n\r\n")->refusal, 400);
    EXPECT_EQ(take("PUT / HTTP/1.1\r\ntransfer-encoding: chunked\r\n\r\n")->refusal, 411);
}

TEST_F(ConnectionTest, leaves_out_what_asks_for_parts_or_packed_answers)
{
    EXPECT_EQ(
        take("GET / HTTP/1.1\r\nrange: bytes=1-2\r\nA: b\r\nAccept-Encoding: br\r\n\r\n")->text,
        "GET / HTTP/1.1\r\nA: b\r\n\r\n");
}

TEST_F(ConnectionTest, refuses_a_head_that_is_too_long)
{
    const std::string begin = "GET / HTTP/1.1\r\nA: ";
    const std::string longest =
        begin + std::string(live::LONGEST_HEAD - begin.size(), 'a') + "\r\n\r\n";
    std::optional<Head> head = take(longest);
    if (!head) // the rest of it
        head = take("");
    while (!head && connection_->receive())
        head = connection_->take_head();
    ASSERT_TRUE(head);
    EXPECT_EQ(head->refusal, 0);
    EXPECT_EQ(connection_->input, "");

    head = take(begin + std::string(live::LONGEST_HEAD, 'a'));
    while (!head && connection_->receive())
        head = connection_->take_head();
    ASSERT_TRUE(head);
    EXPECT_EQ(head->refusal, 431);
}

TEST_F(ConnectionTest, tells_that_the_client_has_gone)
{
    EXPECT_TRUE(connection_->receive()) << "nothing has come yet";
    close(client_);
    client_ = -1;
    EXPECT_FALSE(connection_->receive());
}

TEST_F(ConnectionTest, keeps_nothing_while_it_drains)
{
    connection_->draining = true;
    EXPECT_EQ(write(client_, "abc", 3), 3);
    EXPECT_TRUE(connection_->receive());
    EXPECT_EQ(connection_->input, "");
}

} // namespace
