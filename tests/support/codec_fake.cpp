#include "support/codec_fake.h"

#include "support/trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <optional>

namespace codec
{

using support::add_trace;

namespace
{

constexpr std::uint32_t FIRST_HANDLE = 0x101;
constexpr std::uint8_t FRESH_BYTE = 0xA5;
constexpr std::uint32_t SENTINEL = 0xC35A3CA5;
constexpr std::size_t SENTINELS = 64;

struct Plan {
    int calls = 0;
    int fail_from = 0;
    int fail_count = 0;
    std::uint32_t error = 0;
    std::function<void()> action;
};

struct Fake {
    std::array<Plan, CALLS> plans;
    std::deque<Osd> osds; // in the order of their handles; never moved
    std::uint16_t width = 720;
    std::uint16_t height = 576;
    std::uint32_t alignment = 1;
    int failure_result = -1;
    std::optional<std::uint32_t> told_size;
    qm5_cl_post_notify_function *callback = nullptr;
};

Fake &fake()
{
    static Fake instance;
    return instance;
}

// Counts a call and lets its action run. True, with errno set, if it is to fail.
bool fails(Call call)
{
    Plan &plan = fake().plans[call];
    plan.calls++;
    if (plan.action)
        plan.action();
    if (plan.fail_from == 0 || plan.calls < plan.fail_from ||
        plan.calls >= plan.fail_from + plan.fail_count)
        return false;
    errno = static_cast<int>(plan.error);
    return true;
}

Osd *find_open(std::uint32_t handle)
{
    const std::size_t index = handle - FIRST_HANDLE;
    if (handle < FIRST_HANDLE || index >= fake().osds.size() || !fake().osds[index].open)
        return nullptr;
    return &fake().osds[index];
}

int end(bool failed)
{
    return failed ? fake().failure_result : 0;
}

// The application hands over cleared records to be filled; the trace tells of one that isn't.
template <typename Record>
void check_cleared(const char *call, const Record *record)
{
    static constexpr Record cleared = {};
    if (std::memcmp(record, &cleared, sizeof cleared) != 0)
        add_trace("%s: the record isn't cleared", call);
}

std::size_t memory_size(const Osd &osd)
{
    return std::size_t{osd.line_bytes} * osd.param.height;
}

} // namespace

void reset()
{
    fake() = {};
}

void fail(Call call, int nth, std::uint32_t error, int count)
{
    Plan &plan = fake().plans[call];
    plan.fail_from = plan.calls + nth;
    plan.fail_count = count;
    plan.error = error;
}

int calls(Call call)
{
    return fake().plans[call].calls;
}

void set_failure_result(int result)
{
    fake().failure_result = result;
}

void set_size(std::uint16_t width, std::uint16_t height)
{
    fake().width = width;
    fake().height = height;
}

void set_line_alignment(std::uint32_t bytes)
{
    fake().alignment = bytes;
}

void on(Call call, std::function<void()> action)
{
    fake().plans[call].action = std::move(action);
}

qm5_cl_post_notify_function *callback()
{
    return fake().callback;
}

unsigned Osd::bits() const
{
    return 2u << param.color_type;
}

unsigned Osd::width_of_line() const
{
    return line_bytes * 8 / bits();
}

unsigned Osd::index_at(unsigned x, unsigned y) const
{
    const std::size_t bit = (std::size_t{y} * width_of_line() + x) * bits();
    return unsigned{picture.at(bit / 8)} >> bit % 8 & ((1u << bits()) - 1);
}

Osd &osd(std::uint32_t handle)
{
    const std::size_t index = handle - FIRST_HANDLE;
    if (handle < FIRST_HANDLE || index >= fake().osds.size())
        std::abort();
    return fake().osds[index];
}

std::uint32_t adopt_osd(const qm5_cl_osd_param &param)
{
    Osd osd;
    osd.handle = FIRST_HANDLE + static_cast<std::uint32_t>(fake().osds.size());
    osd.param = param;
    osd.open = true;
    const std::uint32_t bytes = (param.width * osd.bits() + 7) / 8;
    const std::uint32_t alignment = fake().alignment;
    osd.line_bytes = (bytes + alignment - 1) / alignment * alignment;

    const std::size_t size = memory_size(osd);
    osd.words.assign((size + 3) / 4 + SENTINELS, SENTINEL);
    std::memset(osd.words.data(), FRESH_BYTE, size);
    fake().osds.push_back(std::move(osd));
    return fake().osds.back().handle;
}

void set_told_size(std::uint32_t bytes)
{
    fake().told_size = bytes;
}

bool sentinels_are_intact()
{
    return std::all_of(fake().osds.begin(), fake().osds.end(), [](const Osd &osd) {
        const std::size_t size = memory_size(osd);
        std::vector<std::uint32_t> untouched(osd.words.size(), SENTINEL);
        const auto *now = reinterpret_cast<const std::uint8_t *>(osd.words.data());
        const auto *then = reinterpret_cast<const std::uint8_t *>(untouched.data());
        return std::equal(now + size, now + osd.words.size() * 4, then + size);
    });
}

} // namespace codec

// ---- The library --------------------------------------------------------------------------------

using namespace codec;

extern "C" {

int qm5_cl_library_init(void)
{
    add_trace("library_init()");
    return end(fails(LIBRARY_INIT));
}

int qm5_cl_sys_open_device(void)
{
    add_trace("open_device()");
    return end(fails(OPEN_DEVICE));
}

int qm5_cl_post_notify_callback(qm5_cl_post_notify_function *callback)
{
    add_trace("notify_callback()");
    if (fails(NOTIFY_CALLBACK))
        return fake().failure_result;
    fake().callback = callback;
    return 0;
}

int qm5_cl_post_set_notify(std::uint32_t mask)
{
    add_trace("set_notify(%u)", mask);
    return end(fails(SET_NOTIFY));
}

int qm5_cl_post_thread_get_status(std::uint32_t res_id, qm5_cl_post_status *status)
{
    add_trace("get_status(0x%X)", res_id);
    check_cleared("get_status", status);
    if (fails(GET_STATUS))
        return fake().failure_result;
    std::memset(status, 0xEE, sizeof *status);
    status->width = fake().width;
    status->height = fake().height;
    return 0;
}

int qm5_cl_post_open_osd(std::uint32_t res_id, const qm5_cl_osd_param *param, std::uint32_t *handle,
                         std::uint32_t *aux, std::uint32_t *line_bytes)
{
    add_trace("open_osd(0x%X, %u, %ux%u, type %u)", res_id, param->number, param->width,
              param->height, param->color_type);
    if (calls(OPEN_OSD) == 0) { // behind the first they hold what it has given
        check_cleared("open_osd", aux);
        check_cleared("open_osd", line_bytes);
    }
    if (fails(OPEN_OSD))
        return fake().failure_result;
    *handle = adopt_osd(*param);
    *aux = 0xA0000000 + *handle;
    *line_bytes = osd(*handle).line_bytes;
    return 0;
}

int qm5_cl_post_close_osd(std::uint32_t res_id, std::uint32_t handle)
{
    add_trace("close_osd(0x%X, 0x%X)", res_id, handle);
    if (fails(CLOSE_OSD))
        return fake().failure_result;
    if (Osd *osd = find_open(handle)) {
        osd->open = false;
        osd->shown = false;
    }
    return 0;
}

int qm5_cl_post_clear_osd(std::uint32_t res_id, std::uint32_t handle)
{
    add_trace("clear_osd(0x%X, 0x%X)", res_id, handle);
    if (fails(CLEAR_OSD))
        return fake().failure_result;
    if (Osd *osd = find_open(handle))
        osd->shown = false;
    return 0;
}

int qm5_cl_post_get_osd_mem(std::uint32_t res_id, std::uint32_t handle, qm5_cl_osd_mem *mem)
{
    add_trace("get_osd_mem(0x%X, 0x%X)", res_id, handle);
    check_cleared("get_osd_mem", mem);
    if (fails(GET_OSD_MEM))
        return fake().failure_result;
    Osd &osd = codec::osd(handle);
    mem->memory = osd.words.data();
    mem->size = fake().told_size.value_or(static_cast<std::uint32_t>(memory_size(osd)));
    return 0;
}

int qm5_cl_post_set_osd(std::uint32_t res_id, std::uint32_t handle, qm5_cl_osd_pos pos)
{
    add_trace("set_osd(0x%X, 0x%X, %u, %u)", res_id, handle, pos.x, pos.y);
    if (fails(SET_OSD))
        return fake().failure_result;
    Osd &osd = codec::osd(handle);
    const auto *memory = reinterpret_cast<const std::uint8_t *>(osd.words.data());
    osd.picture.assign(memory, memory + memory_size(osd));
    osd.shown = true;
    osd.pos = pos;
    return 0;
}

int qm5_cl_sys_close_device(void)
{
    add_trace("close_device()");
    return end(fails(CLOSE_DEVICE));
}

int qm5_cl_library_exit(void)
{
    add_trace("library_exit()");
    return end(fails(LIBRARY_EXIT));
}

} // extern "C"
