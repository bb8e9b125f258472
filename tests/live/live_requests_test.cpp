// What the live page's server makes of requests that no page would send.
#include "live_page.h"

#include "support/files.h"

#include <filesystem>

namespace
{

using namespace support;

constexpr const char *NOTHING = "address: there is nothing here";
constexpr const char *NO_SENSE = "request: it makes no sense";

class LiveRequests : public LivePageTest
{
protected:
    void SetUp() override
    {
        LivePageTest::SetUp();
        serve();
    }

    void TearDown() override
    {
        EXPECT_EQ(get("/api/state").status, 200) << "the server has taken harm";
        LivePageTest::TearDown();
    }

    // Sends these bytes and takes the answer.
    Answer send(const std::string &bytes) const
    {
        HttpConnection connection(port());
        connection.send(bytes);
        return connection.receive();
    }
};

// ---- Paths --------------------------------------------------------------------------------------

TEST_F(LiveRequests, find_nothing_at_other_paths)
{
    const std::string zero("/\0", 2);
    for (const std::string path : {"/index.html",
                                   "/nothing",
                                   "//",
                                   "/..",
                                   "/../",
                                   "/../etc/passwd",
                                   "/%2e%2e/etc/passwd",
                                   "/..%2fetc%2fpasswd",
                                   "/./",
                                   "/page.css/",
                                   "/%00",
                                   "/page.css%00",
                                   "/api",
                                   "/api/",
                                   "/api/state/",
                                   "//api/state",
                                   "/api//state",
                                   "/API/STATE",
                                   "/api/state%00",
                                   "/api/state%0a",
                                   "/api/posts",
                                   "/api/posts/",
                                   "/api/posts/x/background",
                                   "/api/posts/-1/background",
                                   "/api/posts/+1/background",
                                   "/api/posts/%201/background",
                                   "/api/posts/0x1/background",
                                   "/api/posts/1/osds",
                                   "/api/posts/1/osds/1/2",
                                   "/api/posts/1234567890/background",
                                   "/api/posts/%2e%2e/background",
                                   "/api/posts/*/background",
                                   "*",
                                   "http://127.0.0.1/"})
        EXPECT_TRUE(is_error(get(path), 404, NOTHING)) << path;
    EXPECT_TRUE(is_error(get("/api/posts/4/background"), 404, "post 4: there is none"));
    EXPECT_TRUE(is_error(get("/api/posts/4/osds/0"), 404, "post 4: there is none"));
    EXPECT_TRUE(is_error(get("/api/posts/0/osds/4"), 404, "OSD 4: there is none"));
    EXPECT_TRUE(is_error(change("PUT", "/api/posts/4", R"({"size":"closed"})"), 404,
                         "post 4: there is none"));
    EXPECT_TRUE(is_error(change("PUT", "/api/posts/4/frame", "{}"), 404, "post 4: there is none"));
    EXPECT_TRUE(is_error(change("DELETE", "/api/posts/999999999/frame"), 404,
                         "post 999999999: there is none"));
    EXPECT_FALSE(std::filesystem::exists(state_)) << "something has been written";
}

TEST_F(LiveRequests, find_the_page_and_its_files)
{
    for (const auto &file : std::filesystem::directory_iterator(QM5SIM_PAGE)) {
        const std::string name = file.path().filename();
        const std::string text = read_file(file.path());
        if (name == "index.html") {
            std::string page = text;
            page.replace(page.find("@TOKEN@"), 7, token_);
            EXPECT_EQ(get("/").body, page);
        } else {
            EXPECT_EQ(get("/" + name).body, text) << name;
        }
    }
    EXPECT_EQ(get("/").headers.at("content-type"), "text/html; charset=utf-8");
    EXPECT_EQ(get("/?anything=1").status, 200);
}

TEST_F(LiveRequests, survive_long_paths)
{
    for (const std::size_t size : {257u, 4000u, 8000u})
        EXPECT_TRUE(is_error(get("/" + std::string(size, 'a')), 404, NOTHING)) << size;
    EXPECT_TRUE(is_error(change("PUT", "/api/" + std::string(8000, 'a')), 404, NOTHING));
    for (const std::size_t size : {9000u, 17000u})
        EXPECT_TRUE(is_error(get("/" + std::string(size, 'a')), 414, NO_SENSE)) << size;
    EXPECT_EQ(get("/?" + std::string(8000, '&')).status, 200);
}

// ---- Methods ------------------------------------------------------------------------------------

TEST_F(LiveRequests, tell_which_methods_an_address_has)
{
    const auto allowed = [&](const std::string &method, const std::string &path) {
        const Answer answer = change(method, path, method == "PATCH" ? "{}" : "");
        EXPECT_TRUE(is_error(answer, 405, method + ": not for this address")) << path;
        return answer.headers.at("allow");
    };
    EXPECT_EQ(allowed("POST", "/"), "GET, HEAD");
    EXPECT_EQ(allowed("DELETE", "/api/state"), "GET, HEAD");
    EXPECT_EQ(allowed("GET", "/api/posts/0"), "PUT");
    EXPECT_EQ(allowed("GET", "/api/faults"), "POST, DELETE");
    EXPECT_EQ(allowed("GET", "/api/parameters/file"), "POST");
    EXPECT_EQ(allowed("PATCH", "/api/palette"), "GET, HEAD, PUT, DELETE");
    EXPECT_EQ(allowed("OPTIONS", "/api/clock"), "PUT, DELETE");
    EXPECT_EQ(allowed("TRACE", "/api/clock"), "PUT, DELETE");
    EXPECT_EQ(ask("BREW", "/", own_headers()).status, 400);
}

TEST_F(LiveRequests, answer_only_the_head_to_head)
{
    const Answer whole = get("/api/palette");
    const Answer head = ask("HEAD", "/api/palette", {{"Host", host()}});
    EXPECT_EQ(head.status, 200);
    EXPECT_EQ(head.headers.at("content-length"), std::to_string(whole.body.size()));
    EXPECT_EQ(ask("HEAD", "/api/events", {{"Host", host()}}).status, 200);
}

// ---- Heads --------------------------------------------------------------------------------------

TEST_F(LiveRequests, refuse_heads_that_make_no_sense)
{
    for (const std::string line :
         {"", " ", "GET", "GET /", "GET / HTTP/9.9", "/ GET HTTP/1.1", "\x16\x03",
          "GET / HTTP/1.1 more", "GET / HTTP/1.1\nHost: 127.0.0.1"})
        EXPECT_TRUE(is_error(send("x" + line + "\r\n\r\n"), 400, NO_SENSE)) << line;
    const std::string get = "GET / HTTP/1.1\r\n";
    const std::string own = "Host: " + host() + "\r\n";
    EXPECT_TRUE(
        is_error(send(get + own + "A: " + std::string(17000, 'a') + "\r\n\r\n"), 400, NO_SENSE));
    // A line without a good end is none.
    for (const std::string &lines :
         {"Host: " + host() + "\n\r\n", "A: b\rHost: " + host() + "\r\n\r\n",
          "A: " + std::string(1, '\0') + "\r\n\r\n"})
        EXPECT_EQ(send(get + lines).status, 403) << lines;
}

TEST_F(LiveRequests, get_whole_answers_that_are_not_packed)
{
    const std::string get = "GET /page.css HTTP/1.1\r\nHost: " + host() + "\r\n";
    const std::string page = read_file(std::string(QM5SIM_PAGE) + "/page.css");
    for (const std::string line :
         {"Range: bytes=0-0", "Range: bytes=0-999999999", "Range: bytes=-1", "Range: bytes=9-",
          "Range: bytes=0-1,0-1,0-1,0-1", "Accept-Encoding: gzip, br"}) {
        const Answer answer = send(get + line + "\r\n\r\n");
        EXPECT_EQ(answer.status, 200) << line;
        EXPECT_EQ(answer.body, page) << line;
    }
    EXPECT_EQ(send(get + "Range: bytes=9-1\r\n\r\n").status, 416);
    EXPECT_EQ(send(get + "Range: bytes=0-0" + std::string(6000, ',') + "\r\n\r\n").status, 416);
}

TEST_F(LiveRequests, refuse_bodies_of_no_known_length)
{
    const std::string put =
        "PUT /api/posts/0 HTTP/1.1\r\nHost: " + host() + "\r\nX-Qm5sim-Token: " + token_ + "\r\n";
    EXPECT_TRUE(is_error(send(put + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"),
                         411, "request: its length isn't told"));
    const std::string senseless = "request: its length makes no sense";
    for (const char *length : {"-1", "x", "+1", "1x", "0x10", "1, 1"})
        EXPECT_TRUE(is_error(send(put + "Content-Length: " + length + "\r\n\r\n"), 400, senseless))
            << length;
    EXPECT_TRUE(
        is_error(send(put + "Content-Length: 2\r\nContent-Length: 2\r\n\r\n{}"), 400, senseless));
    for (const char *none : {"", "Content-Length: \r\n", "Content-Length: 0\r\n"})
        EXPECT_TRUE(is_error(send(put + none + "\r\n"), 400, "body: no JSON object")) << none;
    EXPECT_TRUE(is_error(send(put + "Content-Length: 99999999999999999999\r\n\r\n"), 413,
                         "body: longer than 65536 bytes"));
    const std::string encoding = "body: in an encoding that isn't read";
    EXPECT_TRUE(is_error(send(put + "Content-Encoding: gzip\r\nContent-Length: 2\r\n\r\n{}"), 415,
                         encoding));
    EXPECT_TRUE(is_error(send(put + "Content-Type: multipart/form-data; boundary=x\r\n"
                                    "Content-Length: 2\r\n\r\n{}"),
                         415, encoding));
}

TEST_F(LiveRequests, refuse_bodies_that_are_too_long)
{
    const std::string body(65537, ' ');
    for (const auto &[method, path] : HeaderList{{"PUT", "/api/posts/0"},
                                                 {"PUT", "/api/settings"},
                                                 {"PUT", "/api/clock"},
                                                 {"PUT", "/api/palette"},
                                                 {"POST", "/api/faults"},
                                                 {"POST", "/api/parameters/file"},
                                                 {"DELETE", "/api/faults"},
                                                 {"DELETE", "/api/faults/1"},
                                                 {"DELETE", "/api/clock"},
                                                 {"DELETE", "/api/palette"},
                                                 {"DELETE", "/api/posts/0/frame"},
                                                 {"GET", "/"},
                                                 {"GET", "/page.css"},
                                                 {"GET", "/api/state"},
                                                 {"GET", "/api/posts/0/osds/0"},
                                                 {"GET", "/api/posts/0/background"},
                                                 {"GET", "/api/palette"},
                                                 {"GET", "/api/parameters"},
                                                 {"GET", "/api/events"}})
        EXPECT_TRUE(is_error(change(method, path, body), 413, "body: longer than 65536 bytes"))
            << method << ' ' << path;
    const std::string task((1u << 20) + 1, ' ');
    for (const char *path : {"/api/application", "/api/parameters/compare"})
        EXPECT_TRUE(is_error(change("POST", path, task), 413, "body: longer than 1048576 bytes"));
    const std::string frame((16u << 20) + 1, ' ');
    EXPECT_TRUE(is_error(change("PUT", "/api/posts/0/frame", frame), 413,
                         "body: longer than 16777216 bytes"));
    EXPECT_TRUE(
        is_error(change("PUT", "/api/posts/0", body.substr(1)), 400, "body: no JSON object"));
}

TEST_F(LiveRequests, are_answered_one_a_connection)
{
    const std::string change =
        request_text("PUT", "/api/posts/2", own_headers(), R"({"size":"closed"})");
    for (const std::string &first :
         {request_text("GET", "/api/palette", {{"Host", host()}}),
          request_text("PUT", "/api/clock", own_headers(), "{}"), request_text("BREW", "/", {})}) {
        HttpConnection connection(port());
        connection.send(first + change);
        EXPECT_EQ(connection.receive().headers.at("connection"), "close") << first;
        EXPECT_EQ(connection.rest(), "");
    }
    EXPECT_FALSE(std::filesystem::exists(state_)) << "what came behind a request was served";
}

TEST_F(LiveRequests, take_a_request_in_pieces)
{
    HttpConnection connection(port());
    const std::string request =
        request_text("PUT", "/api/posts/2", own_headers(), R"({"size":"closed"})");
    for (std::size_t at = 0; at < request.size(); at += 7)
        connection.send(request.substr(at, 7));
    EXPECT_EQ(Json::parse(connection.receive().body),
              (Json{{"command", shown_command(QM5SIM_PROGRAM, "post 2 close")}}));
}

// ---- JSON ---------------------------------------------------------------------------------------

TEST_F(LiveRequests, refuse_bodies_that_are_no_json_object)
{
    for (const std::string body :
         {"", " ", "{", "null", "1", "[]", "\"size\"", "{\"size\":\"closed\"", "{size:\"closed\"}",
          "{\"size\":\"closed\"}}", "{\"size\":\"clo\xFFsed\"}", "{\"size\":\"a\nb\"}",
          "\xEF\xBB\xBF", "// {}"})
        EXPECT_TRUE(is_error(change("PUT", "/api/posts/0", body), 400, "body: no JSON object"))
            << body;
    const std::string deep(60000, '[');
    EXPECT_TRUE(is_error(change("PUT", "/api/posts/0", deep), 400, "body: no JSON object"));
    const std::string nested =
        "{\"size\":" + std::string(30000, '[') + std::string(30000, ']') + "}";
    EXPECT_TRUE(is_error(change("PUT", "/api/posts/0", nested), 400, "size: no text"));
    EXPECT_FALSE(std::filesystem::exists(state_)) << "something has been changed";
}

TEST_F(LiveRequests, refuse_values_of_another_type)
{
    const auto refused = [&](const char *method, const char *path, const std::string &body,
                             const std::string &why) {
        EXPECT_TRUE(is_error(change(method, path, body), 400, why)) << body;
    };
    for (const char *value : {"1", "null", "[]", "{}", "true", "[\"closed\"]"}) {
        refused("PUT", "/api/posts/0", std::string("{\"size\":") + value + "}", "size: no text");
        refused("PUT", "/api/clock", std::string("{\"zone\":") + value + "}", "zone: no text");
        refused("POST", "/api/faults", std::string("{\"fault\":") + value + "}", "fault: no text");
    }
    refused("PUT", "/api/posts/0", "{}", "size: no text");
    refused("PUT", "/api/settings", R"({"name":"faults","value":0})", "value: no text");
    refused("PUT", "/api/settings", R"({"value":"0"})", "name: no text");
    refused("PUT", "/api/posts/0", R"({"size":"closed\n"})", "size: a control character");
    refused("PUT", "/api/posts/0", R"({"size":"closed\u0000"})", "size: a control character");
    refused("PUT", "/api/settings", R"({"name":"faults 0\nrecord","value":"1"})",
            "name: a control character");
    refused("PUT", "/api/clock", R"({"zone":"UTC\u007f"})", "zone: a control character");
    EXPECT_FALSE(std::filesystem::exists(state_)) << "something has been changed";
}

} // namespace
