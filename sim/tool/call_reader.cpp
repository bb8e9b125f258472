#include "call_reader.h"

#include "file_io.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace call_reader
{

namespace fs = std::filesystem;
using sim_reader::size_text;

// ---- Files --------------------------------------------------------------------------------------

File::File(fs::path path) : path_(std::move(path))
{
    fd_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); // a FIFO must not hold it up
    if (fd_ == -1)
        fail(std::strerror(errno));
    struct stat own {
    };
    if (fstat(fd_, &own) != 0 || !S_ISREG(own.st_mode)) {
        close(fd_);
        fail("no regular file");
    }
}

File::~File()
{
    close(fd_);
}

std::uint64_t File::size() const
{
    struct stat own {
    };
    if (fstat(fd_, &own) != 0)
        fail(std::strerror(errno));
    return static_cast<std::uint64_t>(own.st_size);
}

bool File::read(std::uint64_t at, void *bytes, std::size_t size) const
{
    auto *next = static_cast<std::uint8_t *>(bytes);
    while (size > 0) {
        const ssize_t length = pread(fd_, next, size, static_cast<off_t>(at));
        if (length == 0)
            return false;
        if (length == -1 && errno == EINTR)
            continue;
        if (length == -1)
            fail(std::strerror(errno));
        next += length;
        at += static_cast<std::uint64_t>(length);
        size -= static_cast<std::size_t>(length);
    }
    return true;
}

bool File::is_replaced() const
{
    struct stat own {
    };
    struct stat there {
    };
    return fstat(fd_, &own) == 0 && stat(path_.c_str(), &there) == 0 &&
           (own.st_ino != there.st_ino || own.st_dev != there.st_dev);
}

void File::fail(const std::string &why) const
{
    throw std::runtime_error(path_.string() + ": " + why);
}

// ---- Calls --------------------------------------------------------------------------------------

namespace
{

constexpr std::uint64_t FIRST_AT = sizeof(sim_calls_head);

bool equal(const sim_call_record &one, const sim_call_record &other)
{
    return std::memcmp(&one, &other, sizeof one) == 0;
}

} // namespace

Calls::Calls(const fs::path &path) : file_(path)
{
}

bool Calls::is_empty() const
{
    sim_calls_head head{};
    const sim_calls_head nothing{};
    return file_.size() == 0 ||
           (file_.read(0, &head, sizeof head) && std::memcmp(&head, &nothing, sizeof head) == 0);
}

sim_calls_head Calls::head() const
{
    sim_calls_head head{};
    if (!file_.read(0, &head, sizeof head))
        fail("no record of calls, or cut off within its head");
    if (head.magic != SIM_CALLS_MAGIC)
        fail("no record of calls");
    if (head.version != SIM_CALLS_VERSION)
        fail("a record of calls of version " + std::to_string(head.version) + ", not " +
             std::to_string(SIM_CALLS_VERSION));
    if (head.record_size != sizeof(sim_call_record))
        fail(std::to_string(head.record_size) + " bytes for a call, not " +
             std::to_string(sizeof(sim_call_record)));
    return head;
}

std::uint64_t Calls::count() const
{
    const std::uint64_t count = head().count;
    const std::uint64_t size = std::max(file_.size(), FIRST_AT);
    const std::uint64_t present = (size - FIRST_AT) / sizeof(sim_call_record);
    if (count > present)
        fail("cut off: it holds " + std::to_string(present) + " of its " + std::to_string(count) +
             " calls");
    return count;
}

std::string Calls::why_cut() const
{
    const sim_calls_head now = head();
    switch (now.cut) {
    case SIM_CALLS_WHOLE:
        return "";
    case SIM_CALLS_AT_LIMIT:
        return "its limit of " + std::to_string(now.limit >> 20) + " MiB was reached";
    default:
        return "they could not be written";
    }
}

std::vector<sim_call_record> Calls::read(std::uint64_t first, std::uint64_t most)
{
    const std::uint64_t last = count();
    if (last > 0 && !first_) {
        sim_call_record call{};
        if (file_.read(FIRST_AT, &call, sizeof call))
            first_ = call;
    }
    if (first > last)
        return {};
    std::vector<sim_call_record> calls(static_cast<std::size_t>(std::min(most, last - first + 1)));
    const std::uint64_t at = FIRST_AT + (first - 1) * sizeof(sim_call_record);
    if (!file_.read(at, calls.data(), calls.size() * sizeof(sim_call_record)))
        fail("cut off while it was read");
    return calls;
}

bool Calls::has_begun_anew() const
{
    if (file_.is_replaced())
        return true;
    sim_call_record now{};
    return first_ && (!file_.read(FIRST_AT, &now, sizeof now) || !equal(now, *first_));
}

const char *Calls::name_of(std::uint64_t number, const sim_call_record &call) const
{
    if (call.operation >= SIM_OPERATIONS)
        fail(number, "operation " + std::to_string(call.operation) + " is unknown");
    return sim_operation_names[call.operation];
}

void Calls::fail(const std::string &why) const
{
    file_.fail(why);
}

void Calls::fail(std::uint64_t number, const std::string &why) const
{
    file_.fail("call " + std::to_string(number) + ": " + why);
}

void Calls::fail_beyond(std::uint64_t number, std::uint64_t last) const
{
    file_.fail("there is no call " + std::to_string(number) + ", the last is " +
               std::to_string(last));
}

// ---- Posts --------------------------------------------------------------------------------------

namespace
{

// An OSD, and where what it shows is kept.
struct RebuiltOsd {
    sim_osd record{};
    std::uint64_t call = 0; // that has shown it last
    std::uint64_t data_at = 0;
    std::uint32_t data_size = 0;
    std::uint64_t hash = 0;
};

struct RebuiltThread {
    std::uint32_t width = 0; // 0: not known
    std::uint32_t height = 0;
    bool gone = false; // as a call has found, before the end was announced
    std::array<RebuiltOsd, SIM_OSDS> osd;
};

// The post threads as calls leave them. Calls are recorded in the order of their ends, so that a
// post thread's first calls may stand before its announcement, and others behind that of its end.
class Rebuilt
{
public:
    explicit Rebuilt(const Calls &calls) : calls_(calls)
    {
    }

    void apply(std::uint64_t number, const sim_call_record &call);

    // The resource ID of the post's thread, 0 if it has none.
    std::uint32_t res_id(unsigned post)
    {
        return threads_[running_[post]].gone ? 0 : running_[post];
    }
    const RebuiltThread &thread(std::uint32_t res_id)
    {
        return threads_[res_id];
    }

private:
    void announce(std::uint64_t number, const sim_call_record &call);
    void find_gone(const sim_call_record &call);
    void take_size(std::uint64_t number, const sim_call_record &call);
    void open_osd(std::uint64_t number, const sim_call_record &call);
    void set_osd(std::uint64_t number, const sim_call_record &call);
    void close_device();
    RebuiltOsd *find_osd(const sim_call_record &call);

    const Calls &calls_;
    std::map<std::uint32_t, RebuiltThread> threads_; // by their resource IDs
    std::array<std::uint32_t, SIM_POSTS> running_{};
};

void Rebuilt::apply(std::uint64_t number, const sim_call_record &call)
{
    calls_.name_of(number, call);
    if (call.operation == SIM_CLOSE_DEVICE)
        return close_device();
    find_gone(call);
    if (call.result != 0)
        return;
    RebuiltOsd *osd = nullptr;
    switch (call.operation) {
    case SIM_NOTIFY:
        return announce(number, call);
    case SIM_THREAD_GET_STATUS:
        return take_size(number, call);
    case SIM_OPEN_OSD:
        return open_osd(number, call);
    case SIM_CLOSE_OSD:
        if ((osd = find_osd(call)))
            *osd = {};
        return;
    case SIM_CLEAR_OSD:
        if ((osd = find_osd(call)))
            osd->record.shown = 0;
        return;
    case SIM_SET_OSD:
        return set_osd(number, call);
    default:
        return;
    }
}

// A post thread may be announced twice, and keeps its OSDs then.
void Rebuilt::announce(std::uint64_t number, const sim_call_record &call)
{
    const std::uint32_t post = call.argument[1];
    if (post >= SIM_POSTS)
        calls_.fail(number, "there is no post " + std::to_string(post));
    const std::uint32_t res_id = call.argument[2] != 0 ? call.argument[0] : 0;
    if (call.argument[2] != 0 && res_id == 0)
        calls_.fail(number, "a post thread without a resource ID");
    if (running_[post] != res_id)
        threads_.erase(running_[post]);
    running_[post] = res_id;
}

// A call may find that its post thread has gone before that is announced. Of one on an OSD that
// isn't known, the OSD may be what has gone; a fault may say so of a thread that is there; and a
// library may give its resource ID to the next one.
void Rebuilt::find_gone(const sim_call_record &call)
{
    const auto thread = threads_.find(call.argument[0]);
    if (thread == threads_.end() || call.operation < SIM_THREAD_GET_STATUS ||
        call.operation > SIM_SET_OSD)
        return;
    const bool has_osd = call.operation > SIM_OPEN_OSD;
    if (call.result == 0)
        thread->second.gone = false;
    else if (sim_tells_gone(call.error) && call.given[0] == 0 && (!has_osd || find_osd(call)))
        thread->second.gone = true;
}

void Rebuilt::take_size(std::uint64_t number, const sim_call_record &call)
{
    const std::uint32_t width = call.given[0];
    const std::uint32_t height = call.given[1];
    if (width == 0 || height == 0 || width > SIM_LONGEST || height > SIM_LONGEST)
        calls_.fail(number, "a post of " + size_text(width, height) + " pixels");
    RebuiltThread &thread = threads_[call.argument[0]];
    thread.width = width;
    thread.height = height;
}

void Rebuilt::open_osd(std::uint64_t number, const sim_call_record &call)
{
    const auto &[res_id, osd, width, height, color_type] = call.argument;
    if (osd >= SIM_OSDS)
        calls_.fail(number, "there is no OSD " + std::to_string(osd));
    if (color_type > 2)
        calls_.fail(number, "there is no colour type " + std::to_string(color_type));
    if (width > SIM_LONGEST || height > SIM_LONGEST)
        calls_.fail(number, "an OSD of " + size_text(width, height) + " pixels");
    RebuiltOsd opened;
    opened.record.handle = call.given[0];
    opened.record.color_type = color_type;
    opened.record.width = width;
    opened.record.height = height;
    opened.record.line_bytes = call.given[2];
    threads_[res_id].osd[osd] = opened;
}

void Rebuilt::set_osd(std::uint64_t number, const sim_call_record &call)
{
    RebuiltOsd *osd = find_osd(call);
    if (!osd)
        return;
    osd->record.shown = 1;
    osd->record.x = call.argument[2];
    osd->record.y = call.argument[3];
    osd->record.sets++;
    if (call.line_bytes != 0) // otherwise it isn't known
        osd->record.line_bytes = call.line_bytes;
    osd->call = number;
    osd->data_at = call.data_at;
    osd->data_size = call.data_size;
    osd->hash = call.hash;
}

// Whatever its result, OSDs end with the device; the post threads go on.
void Rebuilt::close_device()
{
    for (auto &[res_id, thread] : threads_)
        thread.osd = {};
}

// The open OSD of a call; NULL if its opening isn't known, as of a record begun late.
RebuiltOsd *Rebuilt::find_osd(const sim_call_record &call)
{
    const auto thread = threads_.find(call.argument[0]);
    const std::uint32_t handle = call.argument[1];
    if (thread == threads_.end() || handle == 0)
        return nullptr;
    for (RebuiltOsd &osd : thread->second.osd) {
        if (osd.record.handle == handle)
            return &osd;
    }
    return nullptr;
}

Rebuilt rebuild(Calls &calls, std::uint64_t last)
{
    constexpr std::uint64_t at_once = 256;
    Rebuilt rebuilt(calls);
    std::uint64_t number = 1;
    while (number <= last) {
        const auto part = calls.read(number, std::min(at_once, last - number + 1));
        if (part.empty())
            calls.fail_beyond(last, number - 1);
        for (const sim_call_record &call : part)
            rebuilt.apply(number++, call);
    }
    return rebuilt;
}

std::vector<std::uint8_t> read_pixels(const Calls &calls, const fs::path &data,
                                      const RebuiltOsd &osd)
{
    const std::uint64_t size = std::uint64_t{osd.record.line_bytes} * osd.record.height;
    if (size != osd.data_size)
        calls.fail(osd.call, std::to_string(osd.record.height) + " lines of " +
                                 std::to_string(osd.record.line_bytes) + " bytes were shown, and " +
                                 std::to_string(osd.data_size) + " bytes are kept");
    if (size > SIM_LARGEST_OSD)
        calls.fail(osd.call, "an OSD of " + std::to_string(size) + " bytes");
    const File file(data);
    const std::uint64_t present = file.size();
    if (osd.data_at > present || size > present - osd.data_at)
        file.fail("cut off before the end of what call " + std::to_string(osd.call) + " shows");
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(size));
    if (!file.read(osd.data_at, pixels.data(), pixels.size()))
        file.fail("cut off while it was read");
    if (osd.hash != 0 && osd.hash != sim_hash_shown(pixels.data(), pixels.size()))
        file.fail("not what call " + std::to_string(osd.call) + " shows");
    return pixels;
}

} // namespace

sim_reader::Post rebuild_post(const fs::path &record, std::uint64_t last, unsigned number)
{
    Calls calls(record);
    Rebuilt rebuilt = rebuild(calls, last);
    const std::string what = "post " + std::to_string(number) + " at call " + std::to_string(last);
    sim_reader::Post post;
    post.res_id = rebuilt.res_id(number);
    if (post.res_id == 0)
        sim_reader::fail(what, "it has no post thread");
    const RebuiltThread &thread = rebuilt.thread(post.res_id);
    if (thread.width == 0)
        sim_reader::fail(what, "its size isn't known");
    sim_reader::require_possible(what, thread.width, thread.height);
    post.width = thread.width;
    post.height = thread.height;

    fs::path data = record;
    data += ".data";
    for (std::size_t i = 0; i < SIM_OSDS; i++) {
        post.osd[i].record = thread.osd[i].record;
        if (thread.osd[i].record.shown != 0)
            post.osd[i].pixels = read_pixels(calls, data, thread.osd[i]);
    }
    return post;
}

} // namespace call_reader
