// qm5sim snapshot: writes what a post shows, or one OSD of it, as a PNG file, or compares it with
// one.
#include "commands.h"

#include "application_guides.h"
#include "file_io.h"
#include "sim_reader.h"

#include <algorithm>
#include <charconv>
#include <memory>
#include <optional>
#include <string>

namespace commands
{

namespace
{

namespace fs = std::filesystem;
using sim_reader::fail;
using sim_reader::size_text;

struct SnapshotArguments {
    unsigned post = 0;
    std::optional<unsigned> osd;
    std::string file; // empty: none
    std::optional<std::string> back;
    std::optional<std::string> reference;
    bool guides = false;
    std::optional<std::string> safe;
    std::optional<std::string> cell;
};

// ---- Words --------------------------------------------------------------------------------------

// Four numbers, with commas between them.
std::optional<sim_reader::SafeSpace> parse_safe_space(const std::string &text)
{
    std::array<std::uint32_t, 4> numbers{};
    const char *at = text.data();
    const char *const end = at + text.size();
    for (std::size_t i = 0; i < numbers.size(); i++) {
        if (i > 0 && (at == end || *at++ != ','))
            return std::nullopt;
        const auto [stop, error] = std::from_chars(at, end, numbers[i]);
        if (error != std::errc{})
            return std::nullopt;
        at = stop;
    }
    if (at != end)
        return std::nullopt;
    return sim_reader::SafeSpace{numbers[0], numbers[1], numbers[2], numbers[3]};
}

std::optional<sim_reader::Cell> parse_cell(const std::string &text)
{
    sim_reader::Cell cell{};
    if (!sim_parse_size(text.c_str(), &cell.width, &cell.height) || cell.width == 0)
        return std::nullopt;
    return cell;
}

// Puts what the words say in the place of what the guides are.
void take_words(sim_reader::Guides &guides, const SnapshotArguments &arguments)
{
    if (arguments.safe) {
        guides.safe = parse_safe_space(*arguments.safe);
        if (!guides.safe)
            throw CLI::ValidationError("--safe " + *arguments.safe, "not UP,DOWN,LEFT,RIGHT");
    }
    if (arguments.cell) {
        guides.cells.fill(parse_cell(*arguments.cell));
        if (!guides.cells.front())
            throw CLI::ValidationError("--cell " + *arguments.cell, "not WIDTHxHEIGHT");
    }
}

void check_words(const SnapshotArguments &arguments)
{
    sim_reader::Guides guides;
    take_words(guides, arguments);
}

// ---- Pictures -----------------------------------------------------------------------------------

std::string post_name(const SnapshotArguments &arguments)
{
    return "post " + std::to_string(arguments.post);
}

std::string osd_name(const SnapshotArguments &arguments)
{
    return "OSD " + std::to_string(*arguments.osd) + " of " + post_name(arguments);
}

sim_reader::Post read_running_post(const Context &context, const SnapshotArguments &arguments)
{
    sim_reader::Post post = sim_reader::read_post(context.folder, arguments.post);
    if (!sim_reader::has_thread(post))
        fail(post_name(arguments), "it has no post thread");
    return post;
}

// Why a PNG file has not the size of what `name` names; empty if it has.
std::string other_size(const sim_reader::PngFile &png, unsigned width, unsigned height,
                       const std::string &name)
{
    if (png.width() == width && png.height() == height)
        return {};
    return size_text(png.width(), png.height()) + ", but " + name + " is " +
           size_text(width, height);
}

sim_reader::Picture background(const SnapshotArguments &arguments, const sim_reader::Post &post)
{
    if (!arguments.back)
        return sim_reader::test_pattern(post.width, post.height);
    sim_reader::PngFile png(*arguments.back);
    if (const std::string why = other_size(png, post.width, post.height, post_name(arguments));
        !why.empty())
        fail(*arguments.back, why);
    return png.read_picture();
}

sim_reader::Picture compose(const Context &context, const SnapshotArguments &arguments)
{
    const sim_reader::Post post = read_running_post(context, arguments);
    sim_reader::require_possible(post_name(arguments), post.width, post.height);
    sim_reader::Picture picture = background(arguments, post);
    sim_reader::lay_over(picture, post, sim_reader::read_palette(context.folder));
    if (arguments.guides) {
        sim_reader::Guides guides = sim_reader::application_guides(post, arguments.post);
        take_words(guides, arguments);
        sim_reader::draw_guides(picture, post, guides);
    }
    return picture;
}

sim_reader::IndexedPicture take_osd(const Context &context, const SnapshotArguments &arguments)
{
    const sim_reader::Post post = read_running_post(context, arguments);
    const sim_reader::Osd &osd = post.osd.at(*arguments.osd);
    if (osd.record.handle == 0)
        fail(osd_name(arguments), "it is not open");
    if (osd.record.shown == 0)
        fail(osd_name(arguments), "it is not shown");
    if (osd.pixels.empty())
        fail(osd_name(arguments), "it has no pixels");
    return sim_reader::take_osd(osd, sim_reader::read_palette(context.folder));
}

// ---- Checks -------------------------------------------------------------------------------------

std::string describe(const sim_reader::Differences &differences)
{
    const std::vector<bool> &differing = differences.differing;
    const auto first = std::find(differing.begin(), differing.end(), true);
    const auto count = std::count(first, differing.end(), true);
    const auto at = static_cast<std::size_t>(first - differing.begin());
    return std::to_string(count) + (count == 1 ? " pixel differs" : " pixels differ") +
           ", first at " + std::to_string(at % differences.width) + ',' +
           std::to_string(at / differences.width);
}

// Tells of a difference, if there is one, after showing it in the file: another size, or pixels.
void expect_none(const SnapshotArguments &arguments, const std::string &other_size,
                 const sim_reader::Picture &picture, const sim_reader::Differences &differences)
{
    const std::vector<bool> &differing = differences.differing;
    if (std::find(differing.begin(), differing.end(), true) == differing.end())
        return;
    if (!arguments.file.empty())
        sim_reader::write_png(sim_reader::mark_differences(picture, differences), arguments.file);
    fail(*arguments.reference, other_size.empty() ? describe(differences) : other_size);
}

// Can all that either of them has be shown?
bool can_show(const SnapshotArguments &arguments, const sim_reader::PngFile &png, unsigned width,
              unsigned height)
{
    return !arguments.file.empty() &&
           std::uint64_t{std::max(png.width(), width)} * std::max(png.height(), height) <=
               sim_reader::LARGEST_PICTURE;
}

void check_post(const SnapshotArguments &arguments, const sim_reader::Picture &picture)
{
    sim_reader::PngFile png(*arguments.reference);
    const std::string size = other_size(png, picture.width, picture.height, post_name(arguments));
    if (!size.empty() && !can_show(arguments, png, picture.width, picture.height))
        fail(*arguments.reference, size);
    expect_none(arguments, size, picture,
                sim_reader::find_differences(picture, png.read_picture()));
}

void check_osd(const SnapshotArguments &arguments, const sim_reader::IndexedPicture &picture)
{
    sim_reader::PngFile png(*arguments.reference);
    const std::string size = other_size(png, picture.width, picture.height, osd_name(arguments));
    const bool has_depth = png.index_bits() == picture.bits;
    if (!size.empty() && !(has_depth && can_show(arguments, png, picture.width, picture.height)))
        fail(*arguments.reference, size);
    if (!has_depth)
        fail(*arguments.reference, "no palette PNG of " + std::to_string(picture.bits) +
                                       " bits, as " + osd_name(arguments) + " is");
    expect_none(arguments, size, sim_reader::flatten(picture),
                sim_reader::find_differences(picture, png.read_indexed()));
}

// ---- The command --------------------------------------------------------------------------------

void require_file(const SnapshotArguments &arguments)
{
    if (arguments.file.empty() && !arguments.reference)
        throw CLI::RequiredError("file");
    std::error_code none; // one that isn't there is no other
    if (arguments.reference && fs::equivalent(arguments.file, *arguments.reference, none))
        throw CLI::ValidationError(arguments.file, "the difference would replace what to compare");
}

void snapshot(const Context &context, const SnapshotArguments &arguments)
{
    if (arguments.osd) {
        const sim_reader::IndexedPicture picture = take_osd(context, arguments);
        if (arguments.reference)
            check_osd(arguments, picture);
        else
            sim_reader::write_png(picture, arguments.file);
        return;
    }
    const sim_reader::Picture picture = compose(context, arguments);
    if (arguments.reference)
        check_post(arguments, picture);
    else
        sim_reader::write_png(picture, arguments.file);
}

constexpr const char *SNAPSHOT_FOOTER =
    "Pictures are in the palette in force, see qm5sim palette.\n"
    "Guides frame each shown OSD, 0 red, 1 green, 2 blue, 3 yellow, divide it into the cells of\n"
    "its text, and hatch what two share; the frame of what safe spaces leave is magenta. Cells "
    "and\n"
    "safe spaces are those of the application's parameters in force, unless words say others.\n"
    "A check fails for a pixel of another colour, with --osd also of another index.\n"
    "\n"
    "Examples: qm5sim snapshot 0 tvout.png\n"
    "          qm5sim snapshot 0 --over street.png tvout.png\n"
    "          qm5sim snapshot 0 --guides tvout.png\n"
    "          qm5sim snapshot 0 --guides --safe 16,16,24,24 --cell 17x27 tvout.png\n"
    "          qm5sim snapshot 0 --osd 3 time.png\n"
    "          qm5sim snapshot 0 --check expected.png difference.png";

} // namespace

void add_snapshot(CLI::App &app, Context &context)
{
    const auto arguments = std::make_shared<SnapshotArguments>();
    CLI::App *command = app.add_subcommand(
        "snapshot", "Write what a post shows as a PNG file, or compare it with one.");
    command->footer(SNAPSHOT_FOOTER);
    add_post_number(command, arguments->post);
    command->add_option("file", arguments->file,
                        "PNG file to write; with --check, for the difference, if there is one");
    const auto option = [command](const char *name, std::optional<std::string> &value,
                                  const char *form, const char *what) {
        return command->add_option(name, value, what)->type_name(form);
    };
    CLI::Option *over = option("--over", arguments->back, "PNG",
                               "picture below the OSDs, instead of a test pattern");
    CLI::Option *osd =
        command
            ->add_option("--osd", arguments->osd, "this OSD alone, as a palette PNG of its depth")
            ->check(CLI::Range(0u, SIM_OSDS - 1));
    CLI::Option *guides =
        command->add_flag("--guides", arguments->guides, "mark OSDs, cells and safe spaces");
    option("--safe", arguments->safe, "UP,DOWN,LEFT,RIGHT",
           "margins to mark, in place of the safe spaces in force")
        ->needs(guides);
    option("--cell", arguments->cell, "WIDTHxHEIGHT",
           "cells to divide each OSD that is a row of them into, in place of those of its text")
        ->needs(guides);
    option("--check", arguments->reference, "PNG", "compare with this picture and write nothing");
    osd->excludes(over)->excludes(guides);
    command->callback([&context, arguments] {
        require_file(*arguments);
        check_words(*arguments);
        context.action = [&context, arguments] { snapshot(context, *arguments); };
    });
}

} // namespace commands
