#include "state_reader.h"

#include "file_io.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace sim_reader
{

namespace fs = std::filesystem;

// ---- The record ---------------------------------------------------------------------------------

namespace
{

constexpr int ATTEMPTS = 200;
constexpr std::chrono::milliseconds PACE{5};

int open_state(const fs::path &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); // no FIFO holds it up
    if (fd == -1)
        fail(path, std::strerror(errno));
    return fd;
}

// The state record. It is read, not mapped: a file that somebody cuts off ends no reader.
class StateFile
{
public:
    explicit StateFile(const fs::path &path) : path_(path), file_(open_state(path))
    {
        if (is_blank())
            return;
        std::uint32_t head[2]; // another version may have another size
        read_bytes(head, sizeof head, 0);
        if (head[0] != SIM_MAGIC || head[1] != SIM_VERSION)
            fail(path_, "no state of a simulated codec, or of another version");
    }

    // Has nobody written a state into it yet, but for the sequence?
    bool is_blank() const
    {
        sim_state state{};
        const sim_state blank{};
        const ssize_t length = pread(file_.get(), &state, sizeof state, 0);
        state.sequence = 0;
        return (length == 0 || length == sizeof state) &&
               std::memcmp(&state, &blank, sizeof state) == 0;
    }

    std::uint32_t sequence() const
    {
        std::uint32_t sequence = 0;
        read_bytes(&sequence, sizeof sequence, offsetof(sim_state, sequence));
        return sequence;
    }

    sim_state read() const
    {
        sim_state state{};
        read_bytes(&state, sizeof state, 0);
        return state;
    }

private:
    void read_bytes(void *bytes, std::size_t size, off_t at) const
    {
        if (pread(file_.get(), bytes, size, at) != static_cast<ssize_t>(size))
            fail(path_, "no state of a simulated codec");
    }

    fs::path path_;
    Descriptor file_;
};

// Has no process ever had the device open? The user's own folder need not be there yet.
bool is_fresh(const fs::path &folder)
{
    std::error_code unknown; // the opening of the state tells it better
    const fs::file_status status = fs::status(folder, unknown);
    if (status.type() != fs::file_type::not_found)
        return fs::is_directory(status) && !is_there(folder / "state");
    if (!sim_is_own_folder(folder.c_str()))
        fail(folder, unknown.message());
    return true;
}

// What `take` makes of a state that no change came across; an empty one of a fresh folder. One that
// its process has left in the middle of a change, for it was killed, is taken as it stands.
template <typename Take>
auto take_still(const fs::path &folder, Take take)
{
    if (is_fresh(folder))
        return take(sim_state{});
    const StateFile file(folder / "state");
    if (file.is_blank())
        return take(sim_state{});
    for (int attempt = 0; attempt < ATTEMPTS; attempt++) {
        const std::uint32_t before = file.sequence();
        const auto is_changing = [&] { return before % 2 != 0 && is_device_open(folder); };
        if (!is_changing()) {
            auto taken = take(file.read());
            if (file.sequence() == before && !is_changing())
                return taken;
        }
        std::this_thread::sleep_for(PACE);
    }
    fail(folder / "state", "its process stays in the middle of a change");
}

// A file that nobody but the library has written passes.
void check_size(const fs::path &folder, unsigned post, std::uint32_t width, std::uint32_t height)
{
    if (width > SIM_LONGEST || height > SIM_LONGEST)
        fail(folder / "state", "damaged: the size of post " + std::to_string(post));
}

void check_osd(const fs::path &folder, unsigned post, unsigned number, const sim_osd &osd)
{
    if (osd.color_type > 2 || std::uint64_t{osd.line_bytes} * osd.height > SIM_LARGEST_OSD)
        fail(folder / "state",
             "damaged: OSD " + std::to_string(number) + " of post " + std::to_string(post));
}

// ---- Posts that no process follows --------------------------------------------------------------

fs::path size_file(const fs::path &folder, unsigned post)
{
    return folder / ("post" + std::to_string(post));
}

// Brings a post to what its file says. One that says nothing to be understood, as while somebody is
// about to write it, changes nothing.
template <typename AnyPost>
void follow_size(const fs::path &folder, unsigned number, AnyPost &post)
{
    const std::optional<std::string> text = read_file_if_there(size_file(folder, number));
    const Size own = {post.width, post.height};
    Size size = own;
    sim_parse_size(text ? text->c_str() : sim_default_sizes[number], &size.width, &size.height);
    if (size == own)
        return;
    post = {};
    post.width = size.width;
    post.height = size.height;
}

} // namespace

void follow_sizes(const fs::path &folder, sim_state &state)
{
    for (unsigned i = 0; i < SIM_POSTS; i++)
        follow_size(folder, i, state.post[i]);
}

sim_state read_state(const fs::path &folder)
{
    sim_state state = take_still(folder, [](const sim_state &read) { return read; });
    for (unsigned i = 0; i < SIM_POSTS; i++) {
        check_size(folder, i, state.post[i].width, state.post[i].height);
        for (unsigned j = 0; j < SIM_OSDS; j++)
            check_osd(folder, i, j, state.post[i].osd[j]);
    }
    if (!is_device_open(folder))
        follow_sizes(folder, state);
    return state;
}

bool is_device_open(const fs::path &folder)
{
    const fs::path path = folder / "state";
    if (!is_there(path))
        return false;
    const int fd = open_state(path);
    const int error = flock(fd, LOCK_SH | LOCK_NB) == 0 ? 0 : errno;
    close(fd); // at once: while it is held, no process can open the device
    if (error != 0 && error != EWOULDBLOCK)
        fail(path, std::strerror(error));
    return error != 0;
}

// ---- Posts --------------------------------------------------------------------------------------

namespace
{

fs::path pixel_file(const fs::path &folder, unsigned post, unsigned osd)
{
    return folder / ("post" + std::to_string(post) + "-osd" + std::to_string(osd));
}

// Up to `size` bytes; no more is taken than the file has, for a size that was read across a change
// can be anything.
std::vector<std::uint8_t> read_pixels(const fs::path &path, std::uint64_t size)
{
    std::error_code error;
    const std::uintmax_t there = fs::file_size(path, error);
    if (error) // no regular file, perhaps a FIFO, whose opening would wait
        return {};
    std::vector<std::uint8_t> pixels(
        static_cast<std::size_t>(std::min<std::uintmax_t>(size, there)));
    std::ifstream file(path, std::ios::binary);
    file.read(reinterpret_cast<char *>(pixels.data()), static_cast<std::streamsize>(pixels.size()));
    pixels.resize(static_cast<std::size_t>(file.gcount()));
    return pixels;
}

// With the pixels of the OSD `only`, or of all.
Post copy_post(const fs::path &folder, const sim_state &state, unsigned number,
               std::optional<unsigned> only)
{
    const sim_post &record = state.post[number];
    Post post;
    post.res_id = record.res_id;
    post.width = record.width;
    post.height = record.height;
    for (unsigned i = 0; i < SIM_OSDS; i++) {
        Osd &osd = post.osd[i];
        osd.record = record.osd[i];
        if (osd.record.shown != 0 && only.value_or(i) == i)
            osd.pixels = read_pixels(pixel_file(folder, number, i), bytes_of_memory(osd.record));
    }
    return post;
}

void require_whole(const fs::path &folder, const Osd &osd, unsigned post, unsigned number)
{
    check_osd(folder, post, number, osd.record);
    if (osd.record.shown != 0 && osd.pixels.size() < bytes_of_memory(osd.record))
        fail(pixel_file(folder, post, number), "not all pixels of the OSD are there");
}

Post read_post_with(const fs::path &folder, unsigned number, std::optional<unsigned> only)
{
    Post post = take_still(
        folder, [&](const sim_state &state) { return copy_post(folder, state, number, only); });
    check_size(folder, number, post.width, post.height);
    if (!is_device_open(folder))
        follow_size(folder, number, post);
    for (unsigned i = 0; i < SIM_OSDS; i++) {
        if (only.value_or(i) == i)
            require_whole(folder, post.osd[i], number, i);
    }
    return post;
}

} // namespace

Post read_post(const fs::path &folder, unsigned number)
{
    return read_post_with(folder, number, std::nullopt);
}

Osd read_osd(const fs::path &folder, unsigned post, unsigned number)
{
    return read_post_with(folder, post, number).osd.at(number);
}

unsigned bits_per_pixel(const sim_osd &osd)
{
    return 2u << osd.color_type;
}

unsigned pixels_per_line(const sim_osd &osd)
{
    return osd.line_bytes * 8 / bits_per_pixel(osd);
}

std::uint64_t bytes_of_memory(const sim_osd &osd)
{
    return std::uint64_t{osd.line_bytes} * osd.height;
}

unsigned Osd::width_of_line() const
{
    return pixels_per_line(record);
}

unsigned Osd::index_at(unsigned x, unsigned y) const
{
    const unsigned bits = bits_per_pixel(record);
    const std::size_t bit = (std::size_t{y} * width_of_line() + x) * bits;
    return unsigned{pixels.at(bit / 8)} >> bit % 8 & ((1u << bits) - 1);
}

std::vector<std::uint8_t> Osd::indices_of_line(unsigned y) const
{
    const unsigned bits = bits_per_pixel(record);
    const unsigned per_byte = 8 / bits;
    const unsigned mask = (1u << bits) - 1;
    const std::uint8_t *line = pixels.data() + std::size_t{y} * record.line_bytes;
    std::vector<std::uint8_t> indices(width_of_line());
    for (unsigned x = 0; x < indices.size(); x++)
        indices[x] =
            static_cast<std::uint8_t>(unsigned{line[x / per_byte]} >> x % per_byte * bits & mask);
    return indices;
}

// ---- The folder ---------------------------------------------------------------------------------

fs::path default_folder()
{
    std::array<char, SIM_PATH_SIZE> path{};
    sim_get_folder(path.data());
    return path.data();
}

void require_trusted(const fs::path &folder)
{
    if (const char *why = sim_refuse_folder(folder.c_str()))
        fail(folder, why);
}

void make_folder(const fs::path &folder)
{
    sim_make_folder(folder.c_str());
    require_trusted(folder); // somebody may have made it just before
}

std::string format_size(const Size &size)
{
    return size.width == 0 ? "closed" : size_text(size.width, size.height);
}

std::string size_text(std::uint64_t width, std::uint64_t height)
{
    return std::to_string(width) + 'x' + std::to_string(height);
}

std::string word_text(std::uint32_t word)
{
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "0x%08X", word);
    return text.data();
}

std::optional<Size> read_size(const fs::path &folder, unsigned number)
{
    const std::optional<std::string> text = read_file_if_there(size_file(folder, number));
    Size size{};
    if (!text || !sim_parse_size(text->c_str(), &size.width, &size.height))
        return std::nullopt;
    return size;
}

namespace
{

// Has this process the state's lock? Not while another one has the device open; that somebody looks
// whether one has doesn't last.
bool lock_state(const fs::path &folder, int fd)
{
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK || is_device_open(folder))
            return false;
        std::this_thread::sleep_for(PACE);
    }
    return true;
}

// Writes a part of the record to its place in the file.
template <typename Part>
void write_part(const fs::path &path, int fd, const sim_state &state, const Part &part)
{
    const auto at = reinterpret_cast<const char *>(&part) - reinterpret_cast<const char *>(&state);
    if (pwrite(fd, &part, sizeof part, at) != sizeof part)
        fail(path, std::strerror(errno));
}

// Takes a thread that has ended while no process follows its post out of the record. It would come
// back otherwise, with what a server that died has left on it, once the file says its size again.
void end_thread(const fs::path &folder, unsigned number)
{
    const fs::path path = folder / "state";
    const Descriptor file(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
    if (file.get() == -1 || !lock_state(folder, file.get()))
        return;
    sim_state state;
    if (pread(file.get(), &state, sizeof state, 0) != sizeof state || state.magic != SIM_MAGIC ||
        state.version != SIM_VERSION) // the next process makes it anew
        return;
    sim_post &post = state.post[number];
    sim_post followed = post;
    follow_size(folder, number, followed);
    if (followed.width == post.width && followed.height == post.height)
        return;
    post = {};
    state.sequence |= 1;
    write_part(path, file.get(), state, state.sequence);
    write_part(path, file.get(), state, post);
    state.sequence++;
    write_part(path, file.get(), state, state.sequence);
}

} // namespace

Descriptor lock_folder(const fs::path &folder)
{
    make_folder(folder);
    Descriptor locked(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (locked.get() == -1 || flock(locked.get(), LOCK_EX) != 0)
        fail(folder, std::strerror(errno));
    return locked;
}

void write_size(const fs::path &folder, unsigned number, unsigned width, unsigned height)
{
    const Descriptor locked = lock_folder(folder); // else another tool would pass for a server
    end_thread(folder, number); // a server may have died before it did, or somebody wrote the file
    write_regular_file(size_file(folder, number), format_size({width, height}) + '\n');
    end_thread(folder, number);
}

} // namespace sim_reader
