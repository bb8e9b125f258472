// The simulated codec library, loaded as the dynamic loader does it, and called from the test's
// thread as the server would.
#pragma once

#include "display/qm5codec.h"
#include "sim_reader.h"
#include "sim_state.h"
#include "support/files.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

namespace support
{

namespace fs = std::filesystem;

inline constexpr const char *STATE = "/tmp/codec";

// The twelve operations.
struct Library {
    void *handle = nullptr;
    decltype(&qm5_cl_library_init) library_init = nullptr;
    decltype(&qm5_cl_sys_open_device) open_device = nullptr;
    decltype(&qm5_cl_post_notify_callback) notify_callback = nullptr;
    decltype(&qm5_cl_post_set_notify) set_notify = nullptr;
    decltype(&qm5_cl_post_thread_get_status) get_status = nullptr;
    decltype(&qm5_cl_post_open_osd) open_osd = nullptr;
    decltype(&qm5_cl_post_close_osd) close_osd = nullptr;
    decltype(&qm5_cl_post_clear_osd) clear_osd = nullptr;
    decltype(&qm5_cl_post_get_osd_mem) get_osd_mem = nullptr;
    decltype(&qm5_cl_post_set_osd) set_osd = nullptr;
    decltype(&qm5_cl_sys_close_device) close_device = nullptr;
    decltype(&qm5_cl_library_exit) library_exit = nullptr;
};

// Loads a library: nothing, or why it can't be used.
inline std::string load(Library &library, const std::string &path)
{
    library.handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library.handle) {
        const std::string why = dlerror();
        return why.rfind(path + ": ", 0) == 0 ? why.substr(path.size() + 2) : why;
    }
    std::string missing;
    const auto find = [&](const char *name, auto &function) {
        function = reinterpret_cast<std::decay_t<decltype(function)>>(dlsym(library.handle, name));
        if (!function && missing.empty())
            missing = std::string("it has no ") + name;
    };
    find("qm5_cl_library_init", library.library_init);
    find("qm5_cl_sys_open_device", library.open_device);
    find("qm5_cl_post_notify_callback", library.notify_callback);
    find("qm5_cl_post_set_notify", library.set_notify);
    find("qm5_cl_post_thread_get_status", library.get_status);
    find("qm5_cl_post_open_osd", library.open_osd);
    find("qm5_cl_post_close_osd", library.close_osd);
    find("qm5_cl_post_clear_osd", library.clear_osd);
    find("qm5_cl_post_get_osd_mem", library.get_osd_mem);
    find("qm5_cl_post_set_osd", library.set_osd);
    find("qm5_cl_sys_close_device", library.close_device);
    find("qm5_cl_library_exit", library.library_exit);
    return missing;
}

// What the callback was told, in its order.
struct Notice {
    std::uint32_t res_id;
    std::uint32_t post;
    bool opened;
    std::thread::id thread;
};
inline std::mutex notices_lock;
inline std::vector<Notice> notices;

inline void keep_notice(qm5_cl_post_notify_info info)
{
    const std::lock_guard lock(notices_lock);
    notices.push_back({info.res_id, info.post, info.opened != 0, std::this_thread::get_id()});
}

inline std::vector<Notice> notices_so_far()
{
    const std::lock_guard lock(notices_lock);
    return notices;
}

// How many mappings of a file this process has.
inline std::size_t mappings_of(const std::string &path)
{
    std::istringstream maps(support::read_file("/proc/self/maps"));
    std::size_t count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.find(path) != std::string::npos;
    return count;
}

inline bool is_gone_error(std::uint32_t error)
{
    return error == QM5_CL_ERROR_GONE_1 || error == QM5_CL_ERROR_GONE_2 ||
           error == QM5_CL_ERROR_GONE_3;
}

class CodecLibrary : public testing::Test
{
protected:
    void SetUp() override
    {
        setenv("QM5SIM_STATE", STATE, 1);
        notices.clear();
        ASSERT_EQ(load(lib_, QM5OSD_STAGE "/osd/lib/libqm5codec.so.1.2"), "");
    }

    void TearDown() override
    {
        if (up_)
            take_down();
        dlclose(lib_.handle); // a fresh copy for every test
        fs::remove_all(STATE);
        EXPECT_EQ(support::temporary_files(), std::vector<std::string>{});
    }

    // The server's first four calls.
    void bring_up(std::uint32_t mask = 15)
    {
        ASSERT_EQ(lib_.library_init(), 0);
        ASSERT_EQ(lib_.open_device(), 0);
        ASSERT_EQ(lib_.notify_callback(keep_notice), 0);
        ASSERT_EQ(lib_.set_notify(mask), 0);
        up_ = true;
    }

    // And its last two.
    void take_down()
    {
        EXPECT_EQ(lib_.close_device(), 0);
        EXPECT_EQ(lib_.library_exit(), 0);
        up_ = false;
    }

    // Waits for the notices up to this number and gives the last of them.
    static Notice wait_for_notice(std::size_t number)
    {
        EXPECT_TRUE(wait_until([number] { return notices_so_far().size() >= number; }));
        return notices_so_far().at(number - 1);
    }

    // Brings the library up and waits until all four posts are announced: their resource IDs.
    std::vector<std::uint32_t> bring_up_with_posts()
    {
        bring_up();
        wait_for_notice(SIM_POSTS);
        std::vector<std::uint32_t> ids(SIM_POSTS);
        for (const Notice &notice : notices_so_far())
            ids.at(notice.post) = notice.res_id;
        return ids;
    }

    // What comes before an open.
    void read_size(std::uint32_t res_id)
    {
        qm5_cl_post_status status{};
        EXPECT_EQ(lib_.get_status(res_id, &status), 0);
    }

    struct Opened {
        std::uint32_t handle = 0;
        std::uint32_t line_bytes = 0;
    };
    Opened open_osd(std::uint32_t res_id, const qm5_cl_osd_param &param)
    {
        Opened opened;
        std::uint32_t aux = 0;
        read_size(res_id);
        EXPECT_EQ(lib_.open_osd(res_id, &param, &opened.handle, &aux, &opened.line_bytes), 0);
        EXPECT_NE(opened.handle, 0u);
        return opened;
    }

    // Did the call fail with this error?
    static testing::AssertionResult failed(int result, std::uint32_t error)
    {
        const auto found = static_cast<std::uint32_t>(errno);
        if (result != 0 && found == error)
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << result << ", errno " << hex(found);
    }

    // Every operation on a post thread or an OSD of it fails as for a thread that has gone.
    void expect_all_gone(std::uint32_t res_id, std::uint32_t handle)
    {
        qm5_cl_post_status status{};
        qm5_cl_osd_mem mem{};
        const qm5_cl_osd_param param = {0, 16, 4, 2};
        std::uint32_t word = 0;
        std::uint32_t new_handle = 0;
        const auto gone = [](int result) {
            return result != 0 && is_gone_error(static_cast<std::uint32_t>(errno));
        };
        EXPECT_TRUE(gone(lib_.get_status(res_id, &status)));
        EXPECT_TRUE(gone(lib_.open_osd(res_id, &param, &new_handle, &word, &word)));
        EXPECT_EQ(new_handle, 0u) << "stays 0 on failure";
        EXPECT_TRUE(gone(lib_.get_osd_mem(res_id, handle, &mem)));
        EXPECT_TRUE(gone(lib_.set_osd(res_id, handle, {0, 0})));
        EXPECT_TRUE(gone(lib_.clear_osd(res_id, handle)));
        EXPECT_TRUE(gone(lib_.close_osd(res_id, handle)));
    }

    Library lib_;
    bool up_ = false;
};

} // namespace support
