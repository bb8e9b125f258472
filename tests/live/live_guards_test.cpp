// Who gets an answer of the live page's server, and what every answer tells the browser.
#include "live_page.h"

#include "support/files.h"

#include <algorithm>
#include <csignal>
#include <filesystem>

namespace
{

using namespace support;

constexpr const char *TOKEN = "correct-horse-battery";

class LiveGuards : public LivePageTest
{
protected:
    Answer get_as(const HeaderList &headers) const
    {
        return ask("GET", "/api/state", headers);
    }

    // The changes that the page can make.
    static HeaderList changes()
    {
        return {{"PUT", "/api/posts/0"},          {"PUT", "/api/posts/0/frame"},
                {"PUT", "/api/settings"},         {"PUT", "/api/clock"},
                {"PUT", "/api/palette"},          {"POST", "/api/faults"},
                {"POST", "/api/application"},     {"POST", "/api/parameters/compare"},
                {"POST", "/api/parameters/file"}, {"DELETE", "/api/faults"},
                {"DELETE", "/api/faults/1"},      {"DELETE", "/api/clock"},
                {"DELETE", "/api/palette"},       {"DELETE", "/api/posts/0/frame"}};
    }
};

constexpr const char *FOREIGN = "request: not from a page of this server";
constexpr const char *NO_PAGE_TOKEN = "request: a change needs the token of the page";
constexpr const char *NO_ACCESS = "request: it needs the token of this server";

// ---- Names --------------------------------------------------------------------------------------

TEST_F(LiveGuards, answer_to_every_name_of_this_machine)
{
    serve();
    const std::string port = ":" + std::to_string(this->port());
    for (const std::string name : {"127.0.0.1", "127.1.2.3", "localhost", "[::1]"})
        EXPECT_EQ(get_as({{"Host", name + port}}).status, 200) << name;
}

TEST_F(LiveGuards, refuse_every_other_name)
{
    serve();
    const std::string port = ":" + std::to_string(this->port());
    for (const std::string &name :
         {"example.com" + port, "10.0.0.1" + port, "0.0.0.0" + port, "[::2]" + port, "[::1" + port,
          "::1" + port, "localhost." + port, "me@127.0.0.1" + port, std::string("127.0.0.1:1"),
          "127.0.0.1" + port + ":1", "127.0.0.1" + port + "0", port, std::string("127.0.0.1"),
          std::string("localhost"), std::string(" ")})
        EXPECT_TRUE(is_error(get_as({{"Host", name}}), 403, FOREIGN)) << name;
    EXPECT_TRUE(is_error(get_as({}), 403, FOREIGN));
    EXPECT_TRUE(is_error(get_as({{"Host", host()}, {"Host", host()}}), 403, FOREIGN));
}

TEST_F(LiveGuards, refuse_pages_from_elsewhere)
{
    serve();
    const auto with = [&](const std::string &name, const std::string &value) {
        return get_as({{"Host", host()}, {name, value}});
    };
    EXPECT_EQ(with("Origin", "http://" + host()).status, 200);
    for (const std::string &origin :
         {"https://" + host(), host(), "http://" + host() + "/", std::string("null"),
          std::string("http://example.com"), "http://localhost:" + std::to_string(port())})
        EXPECT_TRUE(is_error(with("Origin", origin), 403, FOREIGN)) << origin;
    EXPECT_TRUE(is_error(
        get_as(
            {{"Host", host()}, {"Origin", "http://" + host()}, {"Origin", "http://example.com"}}),
        403, FOREIGN));
    for (const char *site : {"same-origin", "none"})
        EXPECT_EQ(with("Sec-Fetch-Site", site).status, 200) << site;
    for (const char *site : {"cross-site", "same-site", "SAME-ORIGIN", "other"})
        EXPECT_TRUE(is_error(with("Sec-Fetch-Site", site), 403, FOREIGN)) << site;
}

// ---- The page's token ---------------------------------------------------------------------------

TEST_F(LiveGuards, let_only_the_page_change_anything)
{
    serve();
    ASSERT_EQ(token_.size(), 32u);
    std::string other = token_;
    other.back() = other.back() == '0' ? '1' : '0';
    for (const auto &[method, path] : changes()) {
        const HeaderList bare = {{"Host", host()}};
        EXPECT_TRUE(is_error(ask(method, path, bare), 403, NO_PAGE_TOKEN)) << path;
        for (const std::string &token :
             {std::string("x"), other, token_.substr(1), token_ + "0", token_ + token_}) {
            HeaderList headers = bare;
            headers.push_back({"X-Qm5sim-Token", token});
            EXPECT_TRUE(is_error(ask(method, path, headers, "{}"), 403, NO_PAGE_TOKEN)) << path;
        }
    }
    EXPECT_FALSE(std::filesystem::exists(state_)) << "something has been changed";
}

TEST_F(LiveGuards, refuse_the_page_of_another_server)
{
    serve();
    const std::string name = "example.com:" + std::to_string(port());
    for (const HeaderList &foreign :
         {HeaderList{{"Host", name}, {"Origin", "http://" + name}},
          HeaderList{{"Host", host()}, {"Origin", "http://127.0.0.1:1"}},
          HeaderList{{"Host", host()}, {"Sec-Fetch-Site", "cross-site"}}}) {
        HeaderList headers = foreign;
        headers.push_back({"X-Qm5sim-Token", token_});
        for (const auto &[method, path] : changes())
            EXPECT_TRUE(is_error(ask(method, path, headers, "{}"), 403, FOREIGN))
                << method << ' ' << path << ' ' << testing::PrintToString(foreign);
    }
    EXPECT_FALSE(std::filesystem::exists(state_)) << "something has been changed";
    const std::string first = token_;
    ASSERT_EQ(end_server(SIGINT), 0);
    serve();
    EXPECT_NE(token_, first);
}

// ---- Headers ------------------------------------------------------------------------------------

TEST_F(LiveGuards, protect_every_answer)
{
    serve();
    for (const Answer &answer :
         {get("/"), get("/api/state"), get("/nothing"), get_as({}), change("PUT", "/api/posts/0"),
          ask("BREW", "/", {}), ask("HEAD", "/", {{"Host", host()}})}) {
        EXPECT_EQ(answer.headers.at("x-content-type-options"), "nosniff");
        EXPECT_EQ(answer.headers.at("referrer-policy"), "no-referrer");
        EXPECT_EQ(answer.headers.at("cache-control"), "no-store");
        EXPECT_EQ(answer.headers.at("content-security-policy"),
                  "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data: "
                  "blob:; connect-src 'self'; form-action 'none'; base-uri 'none'; "
                  "frame-ancestors 'none'");
    }
}

// ---- The access token ---------------------------------------------------------------------------

TEST_F(LiveGuards, want_the_access_token_for_everything)
{
    serve({"--token", TOKEN});
    for (const char *path : {"/", "/api/state", "/api/events", "/nothing", "/?token=wrong",
                             "/?token=", "/api/state?token=correct-horse-battery"})
        EXPECT_TRUE(is_error(get(path), 401, NO_ACCESS)) << path;
    const auto as = [&](const std::string &name, const std::string &value) {
        return get_as({{"Host", host()}, {name, value}});
    };
    EXPECT_EQ(as("Authorization", std::string("Bearer ") + TOKEN).status, 200);
    for (const char *value : {"Bearer wrong", "Bearer ", "Basic correct-horse-battery",
                              "correct-horse-battery", "Bearer correct-horse-battery-"})
        EXPECT_TRUE(is_error(as("Authorization", value), 401, NO_ACCESS)) << value;
    EXPECT_TRUE(is_error(as("Cookie", "a=b"), 401, NO_ACCESS));
    EXPECT_TRUE(
        is_error(as("Cookie", "qm5sim-" + std::to_string(port()) + "=correct-horse-battery"), 401,
                 NO_ACCESS));
}

TEST_F(LiveGuards, take_a_cookie_for_the_access_token)
{
    serve({"--token", TOKEN});
    const Answer first = get(std::string("/?token=") + TOKEN);
    EXPECT_EQ(first.status, 303);
    EXPECT_EQ(first.headers.at("location"), "/");
    const std::string cookie = first.headers.at("set-cookie");
    const std::string pair = cookie.substr(0, cookie.find(';'));
    EXPECT_EQ(cookie, pair + "; HttpOnly; SameSite=Strict; Path=/");
    EXPECT_EQ(cookie.find(TOKEN), std::string::npos);
    for (const std::string &value : {pair, "a=b; " + pair, pair + "; c=d"})
        EXPECT_EQ(get_as({{"Host", host()}, {"Cookie", value}}).status, 200) << value;
    for (const std::string &value : {pair + "0", pair.substr(0, pair.size() - 1), "x" + pair})
        EXPECT_TRUE(is_error(get_as({{"Host", host()}, {"Cookie", value}}), 401, NO_ACCESS));

    // The cookie lets one look; a change needs the page's own token as well.
    const HeaderList headers = {{"Host", host()}, {"Cookie", pair}};
    EXPECT_TRUE(is_error(ask("DELETE", "/api/faults", headers), 403, NO_PAGE_TOKEN));
}

TEST_F(LiveGuards, take_the_access_token_from_a_file)
{
    const std::string token = "AZaz09._~-AZaz09"; // all that a URL carries as it is
    write_file("/tmp/work/token", token + "\n");
    serve({"--token-file", "/tmp/work/token", "--address", "0.0.0.0"});
    EXPECT_TRUE(is_error(get("/"), 401, NO_ACCESS));
    EXPECT_EQ(get("/?token=" + token).status, 303);
    const std::string bearer = "Bearer " + token;
    for (const std::string &name : {host(), "10.1.2.3:" + std::to_string(port())})
        EXPECT_EQ(get_as({{"Host", name}, {"Authorization", bearer}}).status, 200) << name;
    EXPECT_TRUE(is_error(
        get_as({{"Host", "example.com:" + std::to_string(port())}, {"Authorization", bearer}}), 403,
        FOREIGN));
}

// ---- The command line ---------------------------------------------------------------------------

TEST_F(LiveGuards, refuse_to_listen_to_others_without_an_access_token)
{
    const auto refused = [](const Words &words, int status, const std::string &why) {
        Words all = {"serve"};
        all.insert(all.end(), words.begin(), words.end());
        const Ended ended = sim(all);
        EXPECT_EQ(ended.status, status);
        EXPECT_EQ(ended.out, "");
        EXPECT_EQ(ended.err, "qm5sim: " + why + "\n");
    };
    const std::string needed = ": others could reach it, so it needs --token or --token-file";
    for (const std::string address : {"0.0.0.0", "192.0.2.1", "::"})
        refused({"--address", address}, 2, "--address " + address + needed);
    refused({"--address", "example.com"}, 2, "--address example.com: no IP address");
    const std::string what = "not 16 characters of A-Z a-z 0-9 . _ ~ -";
    refused({"--token", "short"}, 2, "--token: " + what);
    // A URL would carry other characters in another form, or as something else.
    for (const std::string other : {" ", "+", "=", "%41", "&", "#", "/", "\xC3\xA9", "\x7F"})
        refused({"--token", "long-enough-but-" + other + "-in-it"}, 2, "--token: " + what);
    write_file("/tmp/work/token", "short\n");
    refused({"--token-file", "/tmp/work/token"}, 1, "/tmp/work/token: " + what);
    refused({"--token-file", "/tmp/work/none"}, 1, "/tmp/work/none: No such file or directory");
    refused({"--port", "65536"}, 2, "--port: Value 65536 not in range 0 to 65535");
    // No machine has an address that is kept for documentation.
    refused({"--address", "192.0.2.1", "--token", TOKEN}, 1,
            "192.0.2.1:8075: Cannot assign requested address");
}

} // namespace
