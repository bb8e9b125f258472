// The examples in the documents do what they show. An example is a block of the kind `console`:
// lines of a shell behind "$ ", which go on behind "> ", each followed by what it prints; "..."
// stands for any text within a line, and in a line of its own for any lines.
#include "support/appliance.h"
#include "support/application.h"
#include "support/files.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <span>
#include <sstream>

namespace
{

namespace fs = std::filesystem;
using support::Ended;

typedef std::vector<std::string> Lines;

constexpr const char *FOLDER = "/tmp/document"; // in which the examples run
constexpr const char *END = "end of example";
constexpr std::chrono::seconds LONGEST_BLOCK{120}; // most of which wait for the server's passes

struct Example {
    std::string command;
    Lines output;
};

typedef std::vector<Example> Block;

Lines split(const std::string &text)
{
    Lines lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::vector<Block> read_blocks(const fs::path &document)
{
    std::vector<Block> blocks;
    bool within = false;
    for (const std::string &line : split(support::read_file(document))) {
        if (line == "```console")
            blocks.emplace_back();
        if (line.starts_with("```"))
            within = line == "```console";
        else if (within && line.starts_with("$ "))
            blocks.back().push_back({line.substr(2), {}});
        else if (within && line.starts_with("> "))
            blocks.back().back().command += '\n' + line.substr(2);
        else if (within)
            blocks.back().back().output.push_back(line);
    }
    return blocks;
}

// Does a line look so? Each part of the pattern between "..." has its first place behind the one
// before, and the last is at the line's end.
bool looks_so(std::string_view line, std::string_view pattern)
{
    std::size_t dots = pattern.find("...");
    if (dots == std::string_view::npos)
        return line == pattern;
    if (!line.starts_with(pattern.substr(0, dots)))
        return false;
    line.remove_prefix(dots);
    while (true) {
        pattern.remove_prefix(dots + 3);
        dots = pattern.find("...");
        if (dots == std::string_view::npos)
            return line.ends_with(pattern);
        const std::size_t found = line.find(pattern.substr(0, dots));
        if (found == std::string_view::npos)
            return false;
        line.remove_prefix(found + dots);
    }
}

bool look_so(std::span<const std::string> lines, std::span<const std::string> patterns)
{
    if (patterns.empty())
        return lines.empty();
    if (patterns.front() == "...")
        return look_so(lines, patterns.subspan(1)) ||
               (!lines.empty() && look_so(lines.subspan(1), patterns));
    return !lines.empty() && looks_so(lines.front(), patterns.front()) &&
           look_so(lines.subspan(1), patterns.subspan(1));
}

// Does it show a failure?
bool may_fail(const Example &example)
{
    return std::ranges::any_of(example.output, [](const std::string &line) {
        return line.starts_with("qm5sim: ") || line.starts_with("ERR:") ||
               line.starts_with("qm5osd: ");
    });
}

// A script that leaves the environment to the next one, and a line with the exit status behind what
// each command prints.
std::string script_of(const Block &block)
{
    std::string script = "exec 2>&1\ncd ";
    script += FOLDER;
    script += "\n[ ! -e environment ] || . ./environment\n";
    for (const Example &example : block)
        script += example.command + "\necho \"" + END + " $?\"\n";
    return script + "export -p > environment\n";
}

void run_block(const Block &block)
{
    const Ended ended = support::run({"/bin/bash", "-c", script_of(block)}, LONGEST_BLOCK);
    Lines lines = split(ended.out);
    auto at = lines.begin();
    for (const Example &example : block) {
        const auto end = std::find_if(
            at, lines.end(), [](const std::string &line) { return line.starts_with(END); });
        ASSERT_NE(end, lines.end()) << example.command << " did not end: " << ended.out;
        EXPECT_TRUE(look_so({at, end}, example.output)) << "$ " << example.command << '\n'
                                                        << ::testing::PrintToString(Lines(at, end));
        EXPECT_TRUE(may_fail(example) || *end == std::string(END) + " 0")
            << "$ " << example.command << '\n'
            << *end;
        at = end + 1;
    }
}

// As long as it lives, the clock of the application stands: pictures show always the same time.
class StandingClock
{
public:
    StandingClock()
    {
        support::write_file(CLOCK, "1830256496\n"); // 2027-12-31 12:34:56 UTC
        setenv("QM5OSD_TEST_CLOCK", CLOCK, 1);
        setenv("LD_PRELOAD", QM5OSD_FIXED_CLOCK, 1);
        setenv("ASAN_OPTIONS", (options_ + ":verify_asan_link_order=0").c_str(), 1);
    }
    StandingClock(const StandingClock &) = delete;
    StandingClock &operator=(const StandingClock &) = delete;
    ~StandingClock()
    {
        setenv("ASAN_OPTIONS", options_.c_str(), 1);
        unsetenv("LD_PRELOAD");
        unsetenv("QM5OSD_TEST_CLOCK");
        fs::remove(CLOCK);
    }

private:
    static constexpr const char *CLOCK = "/tmp/clock";
    const std::string options_ = getenv("ASAN_OPTIONS") ? getenv("ASAN_OPTIONS") : "";
};

class Documents : public support::ApplicationTest
{
protected:
    // A folder that looks like that of the sources with its build.
    void SetUp() override
    {
        ApplicationTest::SetUp();
        state_ = std::string(FOLDER) + "/build/codec";
        fs::create_directories(fs::path(FOLDER) / "build");
        for (const char *name : {"sim", "stage", "tests", "bench"})
            fs::create_directory_symlink(fs::path(QM5OSD_BUILD) / name,
                                         fs::path(FOLDER) / "build" / name);
    }
    void TearDown() override
    {
        end_application();
        fs::remove_all(FOLDER);
        ApplicationTest::TearDown();
    }

    // Runs the examples of a document, and looks for the pictures that it shows.
    void check(const std::string &name, std::size_t blocks)
    {
        const fs::path document = fs::path(QM5OSD_DOCS) / name;
        const std::vector<Block> found = read_blocks(document);
        EXPECT_EQ(found.size(), blocks);
        for (const Block &block : found)
            run_block(block);
        const std::string text = support::read_file(document);
        for (std::size_t at = text.find("](pictures/"); at != std::string::npos;
             at = text.find("](pictures/", at + 1)) {
            const std::string picture = text.substr(at + 2, text.find(')', at) - at - 2);
            EXPECT_TRUE(fs::exists(fs::path(QM5OSD_DOCS) / picture)) << picture;
        }
    }
};

// Is a picture that a document shows the one that its examples have made, pixel by pixel?
// QM5OSD_WRITE_REFERENCES=1 in the environment puts the examples' in its place instead, to be
// looked at.
void expect_made(const std::string &name)
{
    const fs::path made = fs::path(FOLDER) / name;
    const fs::path shown = fs::path(QM5OSD_DOCS) / "pictures" / name;
    if (getenv("QM5OSD_WRITE_REFERENCES")) {
        fs::copy_file(made, shown, fs::copy_options::overwrite_existing);
        ADD_FAILURE() << shown << " is written anew";
    }
    const sim_reader::Picture one = sim_reader::PngFile(made).read_picture();
    const sim_reader::Picture other = sim_reader::PngFile(shown).read_picture();
    EXPECT_EQ(one.width, other.width) << name;
    EXPECT_EQ(one.height, other.height) << name;
    EXPECT_TRUE(one.rgb == other.rgb) << name << " is another picture";
}

TEST_F(Documents, examples_of_the_simulator_are_true)
{
    const StandingClock clock;
    check("simulator.md", 16);
    for (const char *name : {"tvout.png", "guides.png", "difference.png"})
        expect_made(name);
}

TEST_F(Documents, examples_of_the_architecture_are_true)
{
    check("architecture.md", 1);
}

// The application where it lies on the appliance, and with a time zone.
class ApplianceDocuments : public Documents
{
protected:
    void SetUp() override
    {
        Documents::SetUp();
        executable_ = support::APPLIANCE_PROGRAM;
        state_ = getenv("QM5SIM_STATE");
        appliance_.emplace();
        setenv("PATH", QM5OSD_BUILD "/sim:/usr/bin:/bin", 1);
        ASSERT_EQ(support::run({QM5OSD_BUILD "/sim/qm5sim", "clock", "UTC"}).status, 0);
    }
    void TearDown() override
    {
        EXPECT_EQ(support::run({support::APPLIANCE_SERVICE, "stop"}).status, 0);
        Documents::TearDown();
        appliance_.reset();
    }

    std::optional<support::Appliance> appliance_;
};

TEST_F(ApplianceDocuments, examples_of_the_operation_are_true)
{
    check("operations.md", 8);
}

TEST_F(Documents, patterns_fit_only_what_they_show)
{
    EXPECT_TRUE(looks_so("abc", "abc"));
    EXPECT_FALSE(looks_so("abc", "ab"));
    EXPECT_TRUE(looks_so("abc", "a...c"));
    EXPECT_TRUE(looks_so("abc", "..."));
    EXPECT_TRUE(looks_so("abcbd", "a...b...d"));
    EXPECT_FALSE(looks_so("abc", "a...d"));
    EXPECT_FALSE(looks_so("abc", "b...c"));
    EXPECT_FALSE(looks_so("ac", "a...b...c"));
    const Lines lines = {"a", "b", "c"};
    EXPECT_TRUE(look_so(lines, Lines{"a", "...", "c"}));
    EXPECT_TRUE(look_so(lines, Lines{"...", "c"}));
    EXPECT_TRUE(look_so(lines, Lines{"a", "b", "c", "..."}));
    EXPECT_FALSE(look_so(lines, Lines{"a", "b"}));
    EXPECT_FALSE(look_so(lines, Lines{"a", "...", "d"}));
}

} // namespace
