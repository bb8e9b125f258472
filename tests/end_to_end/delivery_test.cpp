// What is delivered: the libraries that the executable needs and where it finds them, its size and
// memory, and the installed tree.
#include "support/application.h"
#include "support/files.h"

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace
{

namespace fs = std::filesystem;
using support::run;
using support::Words;

constexpr const char *LIBRARY = "libqm5codec.so.1.2";

class Delivery : public support::ApplicationTest
{
protected:
    // The values of a kind of entry in a file's dynamic section.
    static std::set<std::string> dynamic_entries(const std::string &file, const std::string &kind)
    {
        const std::string text = run({"/usr/bin/readelf", "-d", "-W", file}).out;
        const std::regex entry("\\(" + kind + "\\)[^\\[]*\\[([^\\]]*)\\]");
        std::set<std::string> found;
        for (auto it = std::sregex_iterator(text.begin(), text.end(), entry);
             it != std::sregex_iterator(); ++it)
            found.insert((*it)[1]);
        return found;
    }

    // The executable as it is delivered differs from the one in the staged tree by its run path.
    const std::string delivered_ = QM5OSD_DELIVERED;
    const std::string recorder_ = QM5SIM_RECORDER;
    const std::string staged_library_ = std::string(QM5OSD_STAGE) + "/osd/lib/" + LIBRARY;
};

typedef std::set<std::string> Set;

TEST_F(Delivery, staged_executable_finds_the_library_beside_it)
{
    EXPECT_EQ(dynamic_entries(executable_, "RUNPATH"), Set{"$ORIGIN/../lib"});
    EXPECT_EQ(dynamic_entries(executable_, "RPATH"), Set{});
    EXPECT_EQ(dynamic_entries(staged_library_, "SONAME"), Set{LIBRARY});
    fs::create_directories("/tmp/tree/bin");
    fs::copy(executable_, "/tmp/tree/bin");
    const Words version = {"/tmp/tree/bin/qm5osd", "--version"};
    EXPECT_EQ(run(version).status, 127) << "the library is taken from elsewhere";
    fs::create_directory("/tmp/tree/lib");
    fs::copy(staged_library_, "/tmp/tree/lib");
    EXPECT_EQ(run(version).status, 0);
    fs::remove_all("/tmp/tree");
}

#ifndef QM5OSD_SANITIZED
TEST_F(Delivery, needs_libc_freetype_and_the_codec_library_alone)
{
    for (const std::string &file : {delivered_, executable_})
        EXPECT_EQ(dynamic_entries(file, "NEEDED"), (Set{"libc.so.6", "libfreetype.so.6", LIBRARY}))
            << file;
}

TEST_F(Delivery, simulated_library_and_recorder_need_libc_alone)
{
    for (const std::string &file : {staged_library_, recorder_})
        EXPECT_EQ(dynamic_entries(file, "NEEDED"), Set{"libc.so.6"}) << file;
}

TEST_F(Delivery, stripped_executable_is_small)
{
#if defined(__arm__)
    constexpr std::uintmax_t LIMIT = 64 * 1024;
#else
    constexpr std::uintmax_t LIMIT = 100 * 1024;
#endif
    for (const std::string &file : {delivered_, executable_}) {
        ASSERT_EQ(run({STRIP_PROGRAM, "-o", "/tmp/stripped", file}).status, 0);
        EXPECT_LT(fs::file_size("/tmp/stripped"), LIMIT) << file;
    }
    fs::remove("/tmp/stripped");
}
#endif

TEST_F(Delivery, environment_puts_another_library_in_its_place)
{
    const fs::path other = fs::path("/tmp/other") / LIBRARY;
    fs::create_directory(other.parent_path());
    support::write_file(other, "no library");
    setenv("LD_LIBRARY_PATH", other.parent_path().c_str(), 1);
    const support::Ended refused = run({executable_, "--version"});
    EXPECT_EQ(refused.status, 127);
    EXPECT_NE(refused.err.find(other.string() + ": "), std::string::npos) << refused.err;
    fs::remove(other);
    fs::copy(staged_library_, other);
    EXPECT_EQ(run({executable_, "--version"}).status, 0);
    unsetenv("LD_LIBRARY_PATH");
    fs::remove_all(other.parent_path());
}

TEST_F(Delivery, library_exports_the_twelve_operations_and_nothing_else)
{
    const std::string text = run({"/usr/bin/nm", "-D", "--defined-only", staged_library_}).out;
    const std::regex symbol(" [A-Z] (\\w+)");
    Set found;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), symbol);
         it != std::sregex_iterator(); ++it)
        found.insert((*it)[1]);
    EXPECT_EQ(
        found,
        (Set{"qm5_cl_library_init", "qm5_cl_sys_open_device", "qm5_cl_post_notify_callback",
             "qm5_cl_post_set_notify", "qm5_cl_post_thread_get_status", "qm5_cl_post_open_osd",
             "qm5_cl_post_close_osd", "qm5_cl_post_clear_osd", "qm5_cl_post_get_osd_mem",
             "qm5_cl_post_set_osd", "qm5_cl_sys_close_device", "qm5_cl_library_exit"}));
}

#if defined(__arm__)
TEST_F(Delivery, has_no_instruction_that_the_appliance_has_not)
{
    for (const std::string &file : {delivered_, executable_, staged_library_, recorder_}) {
        const std::string text = run({"/usr/bin/readelf", "-A", file}).out;
        const auto attribute = [&text](const std::string &name) {
            std::smatch found;
            const std::regex line("  Tag_" + name + ": (.*)\n");
            return std::regex_search(text, found, line) ? found[1].str() : std::string();
        };
        EXPECT_EQ(attribute("CPU_arch"), "v6KZ") << file; // the ARM1176JZF-S
        EXPECT_EQ(attribute("ARM_ISA_use"), "Yes") << file;
        EXPECT_THAT(attribute("THUMB_ISA_use"), testing::AnyOf("", "Thumb-1")) << file;
        EXPECT_THAT(attribute("FP_arch"), testing::AnyOf("", "VFPv1", "VFPv2")) << file;
        for (const char *later : {"Advanced_SIMD_arch", "MPextension_use", "DIV_use"})
            EXPECT_EQ(attribute(later), "") << file << ' ' << later;
    }
}
#endif

#if defined(__arm__)
// ---- The figures of the document about the appliance
// ----------------------------------------------

typedef std::vector<double> Figures;

// The numbers behind the first `what` of a text, in its line. They may have a comma behind the
// thousands.
Figures figures_behind(const std::string &text, const std::string &what)
{
    const std::size_t at = text.find(what);
    if (at == std::string::npos) {
        ADD_FAILURE() << "nothing is told of " << what;
        return {};
    }
    const std::size_t behind = at + what.size();
    const std::string rest = text.substr(behind, text.find('\n', behind) - behind);
    const std::regex number("\\d+(?:,\\d{3})*");
    Figures found;
    for (auto it = std::sregex_iterator(rest.begin(), rest.end(), number);
         it != std::sregex_iterator(); ++it)
        found.push_back(std::stod(std::regex_replace(it->str(), std::regex(","), "")));
    return found;
}

void expect_told(const std::string &what, const Figures &measured)
{
    const Figures told = figures_behind(support::read_file(QM5OSD_DOCS "/appliance.md"), what);
    ASSERT_EQ(told.size(), measured.size()) << what;
    for (std::size_t i = 0; i < told.size(); i++)
        EXPECT_NEAR(told[i], measured[i], measured[i] * 0.03) << what;
}

// What the sections of a file that have one of these names take of memory, in all.
double size_of_sections(const std::string &file, const Set &names)
{
    const std::string text = run({"/usr/bin/readelf", "-S", "-W", file}).out;
    const std::regex section("\\] (\\.\\S+) +\\S+ +[0-9a-f]{8} [0-9a-f]{6} ([0-9a-f]{6}) ");
    double bytes = 0;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), section);
         it != std::sregex_iterator(); ++it) {
        if (names.contains((*it)[1]))
            bytes += static_cast<double>(std::stoul((*it)[2], nullptr, 16));
    }
    return bytes;
}

TEST_F(Delivery, document_tells_the_size_and_the_static_data)
{
    ASSERT_EQ(
        run({STRIP_PROGRAM, "--remove-section=.comment", "-o", "/tmp/stripped", delivered_}).status,
        0);
    expect_told("Stripped, the executable has",
                {static_cast<double>(fs::file_size("/tmp/stripped")), 64 * 1024});
    fs::remove("/tmp/stripped");

    const Set data = {".data", ".bss"};
    const Set tables = {".init_array", ".fini_array", ".data.rel.ro", ".dynamic", ".got"};
    expect_told("the application's static data (`.data` and `.bss`) |",
                {size_of_sections(delivered_, data)});
    expect_told("the application's tables for the loader |",
                {size_of_sections(delivered_, tables)});

    const std::string root = getenv("QEMU_LD_PREFIX") + std::string("/lib/arm-linux-gnueabi/");
    const std::string usr = getenv("QEMU_LD_PREFIX") + std::string("/usr/lib/arm-linux-gnueabi/");
    Set libraries; // of FreeType, without libc, which the application itself needs
    for (Set left = {"libfreetype.so.6"}; !left.empty();) {
        const std::string name = left.extract(left.begin()).value();
        const std::string file = (fs::exists(usr + name) ? usr : root) + name;
        if (name == "libc.so.6" || name == "ld-linux.so.3" || !libraries.insert(file).second)
            continue;
        left.merge(dynamic_entries(file, "NEEDED"));
    }
    EXPECT_EQ(libraries.size(), 6u);
    double own = 0;
    double loaders = 0;
    for (const std::string &file : libraries) {
        own += size_of_sections(file, data);
        loaders += size_of_sections(file, tables);
    }
    expect_told("FreeType's static data, with that of its libraries (`.data` and `.bss`) |", {own});
    expect_told("FreeType's tables for the loader, with those of the same |", {loaders});
}

TEST_F(Delivery, document_tells_the_memory_after_an_hour)
{
    const support::Ended measured = run({MEMORY_PROGRAM});
    EXPECT_EQ(measured.status, 0);
    for (const auto &[told, name] : {
             std::pair("the application's heap |", "the application's heap"),
             std::pair("libc's heap |", "libc's"),
             std::pair("the stack |", "the stack"),
             std::pair("and the letters kept of it |", "FreeType's"),
         })
        expect_told(told, figures_behind(measured.out, std::string("\n") + name + ' '));
}
#endif

TEST_F(Delivery, installed_tree_has_executable_and_parameters_and_no_run_path)
{
    // The build keeps the list of what its user has installed.
    const std::string manifest = std::string(QM5OSD_BUILD) + "/install_manifest.txt";
    const bool listed = fs::exists(manifest);
    const std::string list = listed ? support::read_file(manifest) : "";
    const support::Ended installed =
        run({CMAKE_PROGRAM, "--install", QM5OSD_BUILD, "--prefix", "/tmp/installed"});
    if (listed)
        support::write_file(manifest, list);
    else
        fs::remove(manifest);
    ASSERT_EQ(installed.status, 0) << installed.err;
    Set files;
    for (const auto &entry : fs::recursive_directory_iterator("/tmp/installed")) {
        if (!entry.is_directory())
            files.insert(entry.path());
    }
    const std::string program = "/tmp/installed/osd/bin/qm5osd";
    EXPECT_EQ(files, (Set{program, "/tmp/installed/conf/qm5_app_comm.conf"}));
    EXPECT_EQ(dynamic_entries(program, "RUNPATH"), Set{});
    EXPECT_EQ(dynamic_entries(program, "RPATH"), Set{});

    setenv("LD_LIBRARY_PATH", (std::string(QM5OSD_STAGE) + "/osd/lib").c_str(), 1);
    const support::Ended version = run({program, "--version"});
    unsetenv("LD_LIBRARY_PATH");
    EXPECT_EQ(version.out, std::string(support::NO_ZONE) +
                               "qm5osd version 1.0.5\n"
                               "Copyright (C) 2026 The qm5osd authors\n"
                               "This program comes with ABSOLUTELY NO WARRANTY.\n");
    EXPECT_EQ(version.status, 0);
    fs::remove_all("/tmp/installed");
}

} // namespace
