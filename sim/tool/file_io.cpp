#include "file_io.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace sim_reader
{

namespace fs = std::filesystem;

namespace
{

constexpr mode_t FILE_MODE = 0666; // less the user's mask
constexpr const char *NOT_REGULAR = "no regular file";

// 0, or an errno value.
int write_all(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written > 0)
            bytes.remove_prefix(static_cast<std::size_t>(written));
        else if (written == 0 || errno != EINTR)
            return written == 0 ? EIO : errno;
    }
    return 0;
}

int open_and_write(const fs::path &file, int flags, std::string_view bytes)
{
    const Descriptor out(open(file.c_str(), O_WRONLY | O_CLOEXEC | flags, FILE_MODE));
    return out.get() == -1 ? errno : write_all(out.get(), bytes);
}

int rename_to(const fs::path &draft, const fs::path &file)
{
    return rename(draft.c_str(), file.c_str()) == 0 ? 0 : errno;
}

// Has `make` make a draft beside the file, under a name that nobody has, and puts it in its place.
// `make` gives 0 or an errno value.
template <typename Make>
int replace_by_draft(const fs::path &file, Make make)
{
    fs::path draft;
    int error = EEXIST; // somebody else's, perhaps
    for (unsigned number = 0; error == EEXIST; number++) {
        draft = file;
        draft += '.' + std::to_string(getpid()) + '.' + std::to_string(number);
        error = make(draft);
    }
    if (error == 0)
        error = rename_to(draft, file);
    if (error != 0)
        unlink(draft.c_str());
    return error;
}

// The draft has no name until it is complete, so that nothing is left of one whose writer is
// killed.
int name_draft(const fs::path &file, int fd, std::string_view bytes)
{
    const int error = write_all(fd, bytes);
    if (error != 0)
        return error;
    const std::string nameless = "/proc/self/fd/" + std::to_string(fd);
    return replace_by_draft(file, [&nameless](const fs::path &draft) {
        const int result =
            linkat(AT_FDCWD, nameless.c_str(), AT_FDCWD, draft.c_str(), AT_SYMLINK_FOLLOW);
        return result == 0 ? 0 : errno;
    });
}

int replace(const fs::path &file, std::string_view bytes)
{
    const fs::path folder = file.has_parent_path() ? file.parent_path() : ".";
    const Descriptor out(open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, FILE_MODE));
    if (out.get() != -1)
        return name_draft(file, out.get(), bytes);
    // Some file systems have no files without a name.
    return replace_by_draft(file, [bytes](const fs::path &draft) {
        return open_and_write(draft, O_CREAT | O_EXCL, bytes);
    });
}

std::string read_open_file(const fs::path &file, int fd, std::size_t longest)
{
    std::string bytes;
    char part[1 << 16];
    while (bytes.size() <= longest) {
        const ssize_t length = read(fd, part, sizeof part);
        if (length == 0)
            return bytes;
        if (length > 0)
            bytes.append(part, static_cast<std::size_t>(length));
        else if (errno != EINTR)
            fail(file, std::strerror(errno));
    }
    fail(file, "too long"); // a device may have no end
}

// What may stand in the place of a regular file, and would make who opens it wait.
bool is_special(mode_t mode)
{
    return !S_ISREG(mode) && !S_ISDIR(mode);
}

} // namespace

Descriptor::~Descriptor()
{
    if (fd_ != -1)
        close(fd_);
}

void fail(const fs::path &what, const std::string &why)
{
    throw std::runtime_error(what.string() + ": " + why);
}

bool is_there(const fs::path &file)
{
    std::error_code unknown;
    return fs::exists(file, unknown) || unknown;
}

std::optional<std::string> read_file_if_there(const fs::path &file)
{
    const Descriptor in(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)); // as of a FIFO
    if (in.get() == -1 && errno == ENOENT)
        return std::nullopt;
    if (in.get() == -1)
        fail(file, std::strerror(errno));
    struct stat own {
    };
    if (fstat(in.get(), &own) == 0 && is_special(own.st_mode))
        fail(file, NOT_REGULAR);
    return read_open_file(file, in.get(), LONGEST_TEXT);
}

std::string read_file(const fs::path &file, std::size_t longest)
{
    const Descriptor in(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.get() == -1)
        fail(file, std::strerror(errno));
    return read_open_file(file, in.get(), longest);
}

bool read_line(std::istream &in, std::string &line, std::size_t longest)
{
    line.clear();
    for (char c; line.size() <= longest && in.get(c); line += c) {
        if (c == '\n')
            return true;
    }
    return !line.empty();
}

void write_regular_file(const fs::path &file, std::string_view bytes)
{
    struct stat there {
    };
    if (stat(file.c_str(), &there) == 0 && is_special(there.st_mode))
        fail(file, NOT_REGULAR);
    write_file(file, bytes);
}

void write_file(const fs::path &file, std::string_view bytes)
{
    std::error_code unknown; // the writing tells it better
    const fs::file_status status = fs::status(file, unknown);
    int error = 0;
    if (!fs::exists(status))
        error = replace(file, bytes);
    else if (!fs::is_regular_file(status))
        error = open_and_write(file, 0, bytes);
    else if (access(file.c_str(), W_OK) != 0)
        error = errno;
    else
        error = replace(fs::canonical(file, unknown), bytes);
    if (error != 0)
        fail(file, std::strerror(error));
}

void write_output(std::string_view bytes)
{
    const int error = write_all(STDOUT_FILENO, bytes);
    if (error != 0)
        fail("standard output", std::strerror(error));
}

} // namespace sim_reader
