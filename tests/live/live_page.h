// The server of the live page as its users start it, on a simulated codec of the test's own.
#pragma once

#include "http_client.h"
#include "support/application.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <memory>
#include <string>

namespace support
{

using Json = nlohmann::json;

class LivePageTest : public ApplicationTest
{
protected:
    void SetUp() override;
    void TearDown() override;

    // Starts the server with further words, and waits until it listens.
    void serve(const Words &words = {});

    // Asks it to end, and waits: its exit status.
    int end_server(int signal);

    unsigned port() const
    {
        return port_;
    }
    pid_t server_pid() const
    {
        return server_->pid();
    }
    std::string host() const;

    // The headers of a page of this server.
    HeaderList own_headers() const;

    // A request with exactly these headers, on a connection of its own.
    Answer ask(const std::string &method, const std::string &path, const HeaderList &headers,
               const std::string &body = "") const;

    // Requests as the page makes them.
    Answer get(const std::string &path) const;
    Answer change(const std::string &method, const std::string &path,
                  const std::string &body = "") const;

    // The same, which must succeed: the JSON.
    Json get_json(const std::string &path) const;
    Json change_json(const std::string &method, const std::string &path,
                     const Json &body = nullptr) const;

    // The event stream, from where a page was cut off before, as its header and its query tell it.
    EventReader events(const std::string &last_id = "", const std::string &query = "") const;

    // Waits until the state meets the condition.
    testing::AssertionResult state_is(const std::function<bool(const Json &)> &condition) const;

    // Runs qm5sim.
    static Ended sim(const Words &words);

    // All recorded calls, as qm5sim prints them.
    static Json printed_calls();

    // A command of the application or of qm5sim as the page shows it, with these words behind its
    // name.
    std::string shown_command(const std::string &program, const std::string &words) const;

    // Starts, and stops, an OSD server by the page.
    void start_application(const HeaderList &parameters = {}) const;
    void stop_application() const;

    std::string token_;   // of the page
    std::string program_; // the application, for the server

private:
    std::unique_ptr<Process> server_;
    unsigned port_ = 0;
};

// What a program under way has printed so far.
std::string printed_by(const Process &program);

// An answer is this error.
testing::AssertionResult is_error(const Answer &answer, int status, const std::string &why);

} // namespace support
