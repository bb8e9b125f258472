// The completions, as bash asks for them: by their functions, and by the Tab key.
#include "cli/catalogue.h"
#include "sim_faults.h"
#include "support/files.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <pty.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using support::Words;

typedef std::set<std::string> Set;

const std::string FOLDER = std::string(QM5OSD_SOURCES) + "/packaging/completion/";

// Calls the function that bash would call for a command, with the last of the words to be completed
// and the others before it, and prints what it offers.
constexpr const char *ASK = R"(
source "$1" || exit
shift
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
COMP_LINE="$*"
COMP_POINT=${#COMP_LINE}
[[ $(complete -p "${1##*/}") =~ -F\ ([^ ]+) ]] || exit
"${BASH_REMATCH[1]}" "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}" || exit
printf '%s' "${COMPREPLY[@]/%/$'\n'}"
)";

Set offers(const std::string &file, const Words &words)
{
    Words all = {"/bin/bash", "-c", ASK, "ask", FOLDER + file};
    all.insert(all.end(), words.begin(), words.end());
    const support::Ended ended = support::run(all);
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.err, "");
    Set offered;
    std::istringstream in(ended.out);
    for (std::string line; std::getline(in, line);)
        EXPECT_TRUE(offered.insert(line).second) << line << " is offered twice";
    return offered;
}

// ---- qm5osd -------------------------------------------------------------------------------------

// What is offered for the last of these words behind `qm5osd`.
Set osd_offers(const Words &words)
{
    Words all = {QM5OSD_PROGRAM};
    all.insert(all.end(), words.begin(), words.end());
    return offers("qm5osd", all);
}

Set long_options()
{
    Set options;
    for (std::size_t row = 0; row < OSD_PARAMS; row++) {
        if (osd_option_table[row].val != OSD_NO_POST)
            options.insert(std::string("--") + osd_option_table[row].name + '=');
    }
    return options;
}

// The words that the usage lists as functions.
Set functions()
{
    const std::string usage = support::run({QM5OSD_PROGRAM, "--help"}).out;
    Set words;
    std::istringstream in(usage.substr(usage.find("    FUNCTION\n") + 13));
    for (std::string line; std::getline(in, line);) {
        std::string word;
        std::istringstream(line) >> word;
        words.insert(word);
    }
    return words;
}

TEST(Completion, offers_the_functions_of_the_usage)
{
    const Set words = functions();
    EXPECT_EQ(words.size(), 8u);
    EXPECT_EQ(osd_offers({"help", ""}), words);
    Set first = words;
    first.merge(Set{"--help", "--version"});
    EXPECT_EQ(osd_offers({""}), first);
    EXPECT_EQ(osd_offers({"sta"}), (Set{"start", "status"}));
    EXPECT_EQ(osd_offers({"--v"}), Set{"--version"});
}

TEST(Completion, offers_all_long_options_of_the_catalogue)
{
    const Set options = long_options();
    EXPECT_EQ(options.size(), 152u);
    Set all = options;
    all.merge(Set{"-f", "-l"});
    for (const char *function : {"start", "restart", "update"}) {
        EXPECT_EQ(osd_offers({function, "--"}), options) << function;
        EXPECT_EQ(osd_offers({function, ""}), all) << function;
        EXPECT_EQ(osd_offers({function, "-f", "file", "-"}), all) << function;
    }
    EXPECT_EQ(osd_offers({"update", "--Post2Da"}), Set{"--Post2DateOn="});
}

TEST(Completion, offers_no_option_where_there_is_none)
{
    for (const char *function : {"stop", "status", "--help", "--version", "no such"})
        EXPECT_EQ(osd_offers({function, "-"}), Set{}) << function;
    EXPECT_EQ(osd_offers({"save", "-"}), Set{"-f"});
    EXPECT_EQ(osd_offers({"getthdinfo", "-"}), (Set{"-a", "-t"}));
    EXPECT_EQ(osd_offers({"help", "start", ""}), Set{});
}

TEST(Completion, offers_the_values_of_switches_and_colour_types)
{
    for (std::size_t row = 0; row < OSD_PARAMS; row++) {
        const std::string key = osd_option_table[row].name;
        if (osd_option_table[row].val == OSD_NO_POST)
            continue;
        const Set expected = key.ends_with("On")          ? Set{"0", "1"}
                             : key.ends_with("ColorType") ? Set{"0", "1", "2"}
                                                          : Set{};
        EXPECT_EQ(osd_offers({"update", "--" + key, "="}), expected);
    }
    EXPECT_EQ(osd_offers({"start", "-l", "log", "--Post0DateOn", "=", "1"}), Set{"1"});
    EXPECT_EQ(osd_offers({"start", "--Post0DateOn", "=", "2"}), Set{});
}

TEST(Completion, offers_the_values_behind_a_blank_too)
{
    EXPECT_EQ(osd_offers({"update", "--Post0DateOn", ""}), (Set{"0", "1"}));
    EXPECT_EQ(osd_offers({"update", "--Post1Osd2ColorType", "2"}), Set{"2"});
    EXPECT_EQ(osd_offers({"update", "--Post0String", ""}), Set{});
    EXPECT_EQ(osd_offers({"update", "--Post0DateOn", "1", "--Post2Da"}), Set{"--Post2DateOn="});
    EXPECT_EQ(osd_offers({"update", "--Post0DateOn=1", "--Post2Da"}), Set{"--Post2DateOn="});
}

TEST(Completion, keeps_the_option_before_a_value_in_one_word)
{
    EXPECT_EQ(osd_offers({"update", "--Post0DateOn="}),
              (Set{"--Post0DateOn=0", "--Post0DateOn=1"}));
    EXPECT_EQ(osd_offers({"update", "--Post1Osd2ColorType=2"}), Set{"--Post1Osd2ColorType=2"});
    EXPECT_EQ(osd_offers({"update", "--Post0String=x"}), Set{});
}

TEST(Completion, offers_the_posts_of_getthdinfo)
{
    EXPECT_EQ(osd_offers({"getthdinfo", "-t", ""}), (Set{"0", "1", "2", "3"}));
    EXPECT_EQ(osd_offers({"getthdinfo", "-t", "2", "-"}), (Set{"-a", "-t"}));
}

class Files : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::create_directories("/tmp/files/conf");
        support::write_file("/tmp/files/a file", "");
        support::write_file("/tmp/files/another", "");
    }
    void TearDown() override
    {
        std::filesystem::remove_all("/tmp/files");
    }
    const Set all_ = {"/tmp/files/a file", "/tmp/files/another", "/tmp/files/conf"};
};

TEST_F(Files, are_offered_behind_f_and_l)
{
    for (const char *function : {"start", "restart", "update"}) {
        EXPECT_EQ(osd_offers({function, "-f", "/tmp/files/"}), all_);
        EXPECT_EQ(osd_offers({function, "--Post0DateOn", "=", "1", "-l", "/tmp/files/a"}),
                  (Set{"/tmp/files/a file", "/tmp/files/another"}));
    }
    EXPECT_EQ(osd_offers({"save", "-f", "/tmp/files/c"}), Set{"/tmp/files/conf"});
}

// ---- qm5sim -------------------------------------------------------------------------------------

Set sim_offers(const Words &words)
{
    Words all = {QM5SIM_PROGRAM, "--state", "/tmp/codec"};
    all.insert(all.end(), words.begin(), words.end());
    return offers("qm5sim", all);
}

// The first words of the lines of a part of the tool's help.
Set help_names(const Words &words, const std::string &part)
{
    Words all = {QM5SIM_PROGRAM};
    all.insert(all.end(), words.begin(), words.end());
    all.push_back("--help");
    Set names;
    std::istringstream in(support::run(all).out);
    bool within = false;
    for (std::string line; std::getline(in, line);) {
        std::string word;
        if (!line.starts_with(' '))
            within = line == part;
        else if (within && line[2] != ' ' && std::istringstream(line) >> word)
            names.insert(word == "-h,--help" ? "--help" : word);
    }
    return names;
}

TEST(SimCompletion, offers_commands_and_options_of_the_help)
{
    const Set commands = help_names({}, "Subcommands:");
    EXPECT_TRUE(commands.contains("snapshot"));
    EXPECT_EQ(sim_offers({""}), commands);
    EXPECT_EQ(offers("qm5sim", {QM5SIM_PROGRAM, "-"}), (Set{"--help", "--state"}));
    for (const std::string &command : commands)
        EXPECT_EQ(sim_offers({command, "-"}), help_names({command}, "Options:")) << command;
    EXPECT_EQ(sim_offers({"fault", ""}), help_names({"fault"}, "Subcommands:"));
    EXPECT_EQ(sim_offers({"fault", "add", "-"}), Set{"--help"});
}

TEST(SimCompletion, offers_posts_and_what_is_done_to_them)
{
    const Set posts = {"0", "1", "2", "3"};
    EXPECT_EQ(sim_offers({"post", ""}), posts);
    EXPECT_EQ(sim_offers({"post", "1", ""}), (Set{"open", "close", "resize"}));
    EXPECT_EQ(sim_offers({"snapshot", ""}), posts);
    EXPECT_EQ(sim_offers({"snapshot", "0", "--osd", ""}), posts);
    EXPECT_EQ(sim_offers({"replay", "--post", ""}), posts);
    EXPECT_EQ(sim_offers({"snapshot", "--osd", "="}), posts);
    // A value is no word of the command's own.
    EXPECT_EQ(sim_offers({"snapshot", "--osd", "1", ""}), posts);
    EXPECT_EQ(sim_offers({"play", "--speed", ""}), Set{});
}

TEST(SimCompletion, offers_settings_and_their_values)
{
    const Words setting = {QM5SIM_PROGRAM, "--state", "/tmp/codec", "setting"};
    Set names;
    std::istringstream in(support::run(setting).out);
    for (std::string line; std::getline(in, line);) {
        const std::string name = line.substr(0, line.find(' '));
        const bool is_one_number = line.find(' ') == line.rfind(' ');
        Words two = setting; // which a switch doesn't take
        two.insert(two.end(), {name, "2"});
        const bool is_switch = is_one_number && support::run(two).status == 2;
        EXPECT_EQ(sim_offers({"setting", name, ""}), is_switch ? (Set{"0", "1"}) : Set{}) << name;
        names.insert(name);
    }
    EXPECT_TRUE(names.contains("record-limit"));
    EXPECT_EQ(sim_offers({"setting", ""}), names);
    std::filesystem::remove_all("/tmp/codec");
}

// Does the tool know such a fault?
bool is_fault(const std::string &line)
{
    sim_fault fault;
    return sim_parse_fault(("1 " + line).c_str(), &fault) == nullptr;
}

TEST(SimCompletion, offers_each_fault_that_there_is)
{
    Set operations;
    for (const char *name : sim_operation_names)
        operations.insert(name);
    EXPECT_EQ(sim_offers({"fault", "add", ""}), operations);
    EXPECT_EQ(sim_offers({"fault", "add", "notify", ""}), (Set{"next", "every"}));
    for (const std::string &operation : operations) {
        Set known;
        for (const char *effect : {"fail", "delay", "size", "line", "vanish", "vanish-after",
                                   "change", "change-after", "double", "late"}) {
            const std::string fault = operation + " next " + effect;
            if (is_fault(fault) || is_fault(fault + " 1") || is_fault(fault + " 1 closed"))
                known.insert(effect);
        }
        EXPECT_EQ(sim_offers({"fault", "add", operation, "next", ""}), known) << operation;

        const std::string effect = known.count("delay") != 0 ? "delay" : "double";
        const std::string fault = operation + " next " + effect;
        const bool posts = is_fault(fault + " post 0") || is_fault(fault + " 1 post 0");
        EXPECT_EQ(sim_offers({"fault", "add", operation, "next", effect, "1", ""}),
                  posts ? Set{"post"} : Set{})
            << operation;
    }
    for (const std::string &code : sim_offers({"fault", "add", "set_osd", "next", "fail", ""}))
        EXPECT_TRUE(is_fault("set_osd next fail " + code));
    EXPECT_EQ(sim_offers({"fault", "add", "set_osd", "next", "vanish", "post", ""}),
              (Set{"0", "1", "2", "3"}));
    EXPECT_EQ(sim_offers({"fault", "add", "set_osd", "next", "change-after", ""}),
              (Set{"0", "1", "2", "3"}));
    EXPECT_EQ(sim_offers({"fault", "add", "set_osd", "next", "change", "1", ""}), Set{"closed"});
    EXPECT_EQ(sim_offers({"fault", "add", "set_osd", "next", "change", "1", "closed", ""}),
              Set{"post"});
}

TEST_F(Files, are_offered_to_the_simulators_commands)
{
    EXPECT_EQ(sim_offers({"play", "/tmp/files/"}), all_);
    EXPECT_EQ(sim_offers({"snapshot", "0", "/tmp/files/an"}), Set{"/tmp/files/another"});
    for (const auto &[command, option] :
         {std::pair("palette", "--load"), std::pair("snapshot", "--over"),
          std::pair("snapshot", "--check"), std::pair("calls", "--file"),
          std::pair("replay", "--file"), std::pair("serve", "--qm5osd"),
          std::pair("serve", "--log"), std::pair("serve", "--token-file")}) {
        const Set one = {"/tmp/files/another"};
        EXPECT_EQ(sim_offers({command, option, "/tmp/files/an"}), one) << command << option;
        EXPECT_EQ(sim_offers({command, option, "=", "/tmp/files/an"}), one) << command << option;
    }
    EXPECT_EQ(sim_offers({"--state", "/tmp/files/"}), Set{"/tmp/files/conf"});
    Set here; // relative to the folder that this test runs in
    for (const auto &entry : std::filesystem::directory_iterator("."))
        here.insert(entry.path().filename());
    EXPECT_EQ(sim_offers({"snapshot", "0", "--check", "="}), here);
}

TEST(SimCompletion, offers_the_faults_that_can_be_removed)
{
    ASSERT_EQ(support::run({QM5SIM_PROGRAM, "--state", "/tmp/codec", "fault", "add", "set_osd",
                            "next", "vanish"})
                  .status,
              0);
    EXPECT_EQ(sim_offers({"fault", "remove", ""}), Set{"1"});
    EXPECT_EQ(
        offers("qm5sim", {QM5SIM_PROGRAM, "--state", "=", "/tmp/codec", "fault", "remove", ""}),
        Set{"1"});
    setenv("QM5SIM_STATE", "/tmp/codec", 1);
    EXPECT_EQ(offers("qm5sim", {QM5SIM_PROGRAM, "fault", "remove", ""}), Set{"1"});
    EXPECT_EQ(offers("qm5sim", {QM5SIM_PROGRAM, "--state", "/tmp/another", "fault", "remove", ""}),
              Set{});
    unsetenv("QM5SIM_STATE");
    std::filesystem::remove_all("/tmp/another");
    std::filesystem::remove_all("/tmp/codec");
}

// ---- The Tab key --------------------------------------------------------------------------------

// An interactive bash on a terminal of its own.
class Terminal
{
public:
    explicit Terminal(const std::string &completion)
    {
        pid_ = forkpty(&fd_, nullptr, nullptr, nullptr);
        if (pid_ == 0) {
            setenv("TERM", "dumb", 1);
            setenv("PS1", "> ", 1);
            execl("/bin/bash", "bash", "--norc", "--noprofile", "-i", nullptr);
            _exit(127);
        }
        fcntl(fd_, F_SETFL, O_NONBLOCK);
        type("bind 'set bell-style none'; source '" + completion + "'; echo rea''dy\n");
        EXPECT_TRUE(shows("ready")) << shown_;
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;
    ~Terminal()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        close(fd_);
    }

    void type(const std::string &keys)
    {
        shown_.clear();
        EXPECT_EQ(write(fd_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }

    // Waits until the terminal shows the text behind what was typed last.
    bool shows(const std::string &text)
    {
        return support::wait_until([&] {
            char part[4096];
            const ssize_t length = read(fd_, part, sizeof part);
            if (length > 0)
                shown_.append(part, static_cast<std::size_t>(length));
            return shown_.find(text) != std::string::npos;
        });
    }
    const std::string &shown() const
    {
        return shown_;
    }

private:
    int fd_ = -1;
    pid_t pid_ = -1;
    std::string shown_;
};

TEST(Tab, completes_an_option_and_then_its_value)
{
    Terminal terminal(FOLDER + "qm5osd");
    terminal.type("qm5osd upd\t");
    EXPECT_TRUE(terminal.shows("qm5osd update ")) << terminal.shown();
    terminal.type("--Post1Osd2ColorT\t");
    EXPECT_TRUE(terminal.shows("--Post1Osd2ColorType=")) << terminal.shown();
    terminal.type("\t\t");
    EXPECT_TRUE(terminal.shows("0  1  2")) << terminal.shown();
    terminal.type("2 --Post0D\t1 -");
    EXPECT_TRUE(terminal.shows("--Post0DateOn=1 -")) << terminal.shown();
}

TEST(Tab, leaves_variables_to_bash)
{
    setenv("TAB_FOLDER", "/tmp", 1);
    for (const std::string words : {"qm5osd start -f ", "qm5sim play "}) {
        Terminal terminal(FOLDER + words.substr(0, words.find(' ')));
        terminal.type(words + "$TAB_F\t");
        EXPECT_TRUE(terminal.shows("$TAB_FOLDER/")) << terminal.shown();
    }
    unsetenv("TAB_FOLDER");
}

} // namespace
