// Readers of the live page's server that are slow, silent or many, and its end in spite of them.
#include "live_page.h"

#include "sim/handmade_codec.h"
#include "sim/recorded_calls.h"
#include "sim_reader.h"
#include "support/files.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <vector>

namespace
{

using namespace support;
namespace fs = std::filesystem;

constexpr int MOST_STREAMS = 32;

class LiveReaders : public LivePageTest
{
protected:
    LiveReaders() : codec_(state_)
    {
    }

    void SetUp() override
    {
        LivePageTest::SetUp();
        codec_.open_post(0, 1024, 768);
        codec_.save();
        serve();
    }

    HttpConnection send(const std::string &bytes) const
    {
        HttpConnection connection(port());
        connection.send(bytes);
        return connection;
    }

    std::string get_request(const std::string &path) const
    {
        return request_text("GET", path, {{"Host", host()}});
    }

    // Gives post 0 a picture that can't be packed.
    std::string put_noise() const
    {
        std::mt19937 random(1);
        sim_reader::Picture picture{1024, 768, std::vector<std::uint8_t>(1024 * 768 * 3)};
        for (std::uint8_t &byte : picture.rgb)
            byte = static_cast<std::uint8_t>(random());
        std::string png = sim_reader::encode_png(picture, "noise");
        EXPECT_EQ(change("PUT", "/api/posts/0/frame", png).status, 200);
        return png;
    }

    // Answers go on coming to somebody else.
    void expect_answers() const
    {
        for (int i = 0; i < 20; i++) {
            EXPECT_EQ(get("/api/state").status, 200);
            EXPECT_EQ(change("DELETE", "/api/palette").status, 200);
        }
    }

    HandmadeCodec codec_;
};

// ---- Many at the same time ----------------------------------------------------------------------

TEST_F(LiveReaders, hold_nobody_up)
{
    const std::string png = put_noise();
    ASSERT_GT(png.size(), std::size_t{2} << 20) << "more than a socket takes";
    std::vector<HttpConnection> readers;
    const std::string request = get_request("/api/posts/0/background");
    const std::string change = request_text("PUT", "/api/posts/0", own_headers(), "{\"size\":1}");
    for (int i = 0; i < 100; i++) {
        readers.push_back(send(request));                               // reads nothing
        readers.push_back(send(request.substr(0, request.size() - 3))); // sends no more
        readers.push_back(send(change.substr(0, change.size() - 3)));
    }
    for (int i = 0; i < MOST_STREAMS; i++)
        readers.push_back(send(get_request("/api/events")));
    expect_answers();

    // Those who come back to it get what they have asked for.
    EXPECT_EQ(readers.at(0).receive().body, png);
    readers.at(1).send(request.substr(request.size() - 3));
    EXPECT_EQ(readers.at(1).receive().body, png);
    readers.at(2).send(change.substr(change.size() - 3));
    EXPECT_TRUE(is_error(readers.at(2).receive(), 400, "size: no text"));
}

TEST_F(LiveReaders, may_be_more_than_there_is_room_for)
{
    std::vector<HttpConnection> readers;
    for (int i = 0; i < 700; i++)
        readers.push_back(send("GET / HTTP/1.1\r\n"));
    expect_answers();
    readers.at(699).send("Host: " + host() + "\r\n\r\n");
    EXPECT_EQ(readers.at(699).receive().status, 200);
    EXPECT_TRUE(readers.at(0).is_ended()) << "the oldest gives way";
}

TEST_F(LiveReaders, lose_a_request_that_is_never_complete)
{
    HttpConnection reader = send("GET / HTTP/1.1\r\nHost: ");
    EXPECT_TRUE(reader.is_ended());
    EXPECT_EQ(reader.input, "");
}

// ---- Streams ------------------------------------------------------------------------------------

TEST_F(LiveReaders, of_events_are_limited)
{
    std::vector<EventReader> streams;
    for (int i = 0; i < MOST_STREAMS; i++)
        streams.push_back(events());
    EXPECT_TRUE(is_error(get("/api/events"), 503, "events: 32 streams are open"));
    expect_answers();
    streams.pop_back();
    EXPECT_TRUE(wait_until([&] {
        HttpConnection connection = send(get_request("/api/events"));
        return connection.receive(false).status == 200;
    })) << "the place of one that has gone stays taken";
}

TEST_F(LiveReaders, of_events_find_all_calls_after_a_rest)
{
    constexpr unsigned last = 30000;
    CallList calls;
    for (unsigned i = 1; i <= last; i++) {
        calls.push_back(call_of(SIM_LIBRARY_INIT));
        calls.back().thread = i;
    }
    write_file(state_ + "/calls", record_of({calls[0]}));
    get("/api/state"); // which looks at everything
    EventReader slow = events();
    EventReader swift = events();
    EXPECT_EQ(Json::parse(slow.next("calls").data)["calls"].size(), 1u);
    EXPECT_EQ(Json::parse(swift.next("calls").data)["calls"].size(), 1u);
    const std::string grown = record_of(calls);
    {
        std::ofstream file(state_ + "/calls", std::ios::binary | std::ios::in);
        file.seekp(sizeof(sim_calls_head));
        file.write(&grown[sizeof(sim_calls_head)],
                   static_cast<std::streamsize>(grown.size() - sizeof(sim_calls_head)));
        file.seekp(0);
        file.write(grown.data(), sizeof(sim_calls_head)); // whose count makes them calls
    }
    for (EventReader *reader : {&swift, &slow}) {
        unsigned next = 2;
        while (next <= last) {
            const Json data = Json::parse(reader->next("calls").data);
            EXPECT_EQ(data["reset"], false);
            for (const Json &call : data["calls"])
                ASSERT_EQ(call["thread"], next++);
        }
    }
}

// ---- The end ------------------------------------------------------------------------------------

TEST_F(LiveReaders, do_not_hold_up_the_end)
{
    put_noise();
    std::vector<HttpConnection> readers;
    for (int i = 0; i < MOST_STREAMS; i++) {
        readers.push_back(send(get_request("/api/events")));
        readers.push_back(send(get_request("/api/posts/0/background")));
        readers.push_back(send("GET / HTTP/1.1\r\n"));
        readers.push_back(
            send(request_text("PUT", "/api/clock", own_headers(), "{}").substr(0, 200)));
        readers.push_back(send(get_request("/")));
    }
    EXPECT_EQ(end_server(SIGINT), 0);
    for (HttpConnection &reader : readers)
        EXPECT_TRUE(reader.is_ended());
}

TEST_F(LiveReaders, of_events_are_told_the_end)
{
    EventReader reader = events();
    EXPECT_EQ(reader.next().name, "state");
    EXPECT_EQ(end_server(SIGHUP), 0);
    EXPECT_TRUE(reader.is_ended());
}

} // namespace
