// Readers of the live page's server that are slow, silent or many, and its end in spite of them.
#include "live_page.h"

#include "sim/handmade_codec.h"
#include "sim/recorded_calls.h"
#include "sim_reader.h"
#include "support/files.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <thread>
#include <vector>

namespace
{

using namespace support;
using namespace std::chrono_literals;
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

    // A change whose last byte is missing.
    std::string unfinished() const
    {
        std::string request = request_text("PUT", "/api/clock", own_headers(), "{}");
        request.pop_back();
        return request;
    }

    // Answers go on coming to somebody else.
    void expect_answers() const
    {
        for (int i = 0; i < 20; i++) {
            EXPECT_EQ(get("/api/state").status, 200);
            EXPECT_EQ(change("DELETE", "/api/palette").status, 200);
        }
    }

    // The next calls of a stream. Where the server has let go of a reader for its rest, it comes
    // back, as a page does; and as it was sent more than it had read, it finds more each time.
    Json next_calls(std::optional<EventReader> &reader) const
    {
        for (std::string last_id;;) {
            try {
                return Json::parse(reader->next("calls").data);
            } catch (const StreamEnd &) {
                if (reader->last_id() == last_id)
                    throw;
                last_id = reader->last_id();
                reader.emplace(events(last_id));
            }
        }
    }

    HandmadeCodec codec_;
};

// ---- Many at the same time ----------------------------------------------------------------------

TEST_F(LiveReaders, hold_nobody_up)
{
    const std::string png = put_noise();
    ASSERT_GT(png.size(), std::size_t{2} << 20) << "more than a socket takes";
    const std::string request = get_request("/api/posts/0/background");
    const std::vector<std::string> kinds = {request, // and reads nothing
                                            request.substr(0, request.size() - 3), unfinished()};
    // None of them is let go before this time, so that an answer within it has passed all of them.
    constexpr std::chrono::seconds let_go{5};
    EXPECT_TRUE(wait_until([&] {
        const auto begin = std::chrono::steady_clock::now();
        std::vector<HttpConnection> readers;
        for (int i = 0; i < MOST_STREAMS; i++)
            readers.push_back(send(get_request("/api/events")));
        for (std::size_t i = 0; i < 100; i++)
            readers.push_back(send(kinds[i % kinds.size()]));
        EXPECT_EQ(get("/api/palette").status, 200);
        EXPECT_EQ(change("DELETE", "/api/palette").status, 200);
        return std::chrono::steady_clock::now() - begin < let_go;
    })) << "answers come only as slow readers go";
}

TEST_F(LiveReaders, lose_a_request_that_is_never_complete)
{
    HttpConnection head = send("GET / HTTP/1.1\r\nHost: ");
    HttpConnection body = send(unfinished());
    EXPECT_TRUE(is_error(head.receive(), 400, "request: it makes no sense"));
    EXPECT_TRUE(is_error(body.receive(), 400, "request: its body is cut off"));
    EXPECT_EQ(head.rest() + body.rest(), "");
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
    std::optional<EventReader> slow = events();
    std::optional<EventReader> swift = events();
    EXPECT_EQ(Json::parse(slow->next("calls").data)["calls"].size(), 1u);
    EXPECT_EQ(Json::parse(swift->next("calls").data)["calls"].size(), 1u);
    const std::string grown = record_of(calls);
    {
        std::ofstream file(state_ + "/calls", std::ios::binary | std::ios::in);
        file.seekp(sizeof(sim_calls_head));
        file.write(&grown[sizeof(sim_calls_head)],
                   static_cast<std::streamsize>(grown.size() - sizeof(sim_calls_head)));
        file.seekp(0);
        file.write(grown.data(), sizeof(sim_calls_head)); // whose count makes them calls
    }
    for (std::optional<EventReader> *reader : {&swift, &slow}) {
        unsigned next = 2;
        while (next <= last) {
            const Json data = next_calls(*reader);
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
    // One that goes on sending is never let go of; it is the first, which finds a thread.
    const HttpConnection slow = send("GET / HTTP/1.1\r\nX: ");
    const std::jthread sender([&slow](const std::stop_token &end) {
        while (!end.stop_requested()) {
            slow.send("x");
            std::this_thread::sleep_for(200ms);
        }
    });
    std::vector<HttpConnection> readers;
    for (int i = 0; i < MOST_STREAMS; i++) {
        readers.push_back(send(get_request("/api/events")));
        readers.push_back(send(get_request("/api/posts/0/background")));
        readers.push_back(send("GET / HTTP/1.1\r\n"));
        readers.push_back(send(unfinished()));
        readers.push_back(send(get_request("/")));
    }
    EXPECT_EQ(end_server(SIGINT), 0);
    for (HttpConnection &reader : readers)
        EXPECT_NO_THROW(reader.rest());
}

TEST_F(LiveReaders, of_events_are_told_the_end)
{
    EventReader reader = events();
    EXPECT_EQ(reader.next().name, "state");
    EXPECT_EQ(end_server(SIGHUP), 0);
    reader.rest();
    EXPECT_THROW(get("/"), std::runtime_error) << "nobody listens any more";
}

} // namespace
