// Reading the parameters in force while a client may be writing them.
#include "parameters.h"

#include "cli/catalogue.h"
#include "file_io.h"
#include "server/channel.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/stat.h>

namespace
{

using live::read_values_in_force;

// As long as it lives a server seems to run.
class Parameters : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(mkfifo(OSD_FIFO_REQ, 0600), 0);
        requests_ = std::make_unique<sim_reader::Descriptor>(
            open(OSD_FIFO_REQ, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    }

    void TearDown() override
    {
        std::remove(OSD_FIFO_REQ);
        std::remove(OSD_TMP_PARAM);
        EXPECT_EQ(support::temporary_files(), std::vector<std::string>{});
    }

    // The file in full.
    static std::string whole()
    {
        std::string text;
        for (std::size_t row = 0; row < OSD_PARAMS; row++)
            text += std::string(osd_option_table[row].name) + "=1\n";
        return text;
    }

    std::unique_ptr<sim_reader::Descriptor> requests_;
    int rests_ = 0;
};

TEST_F(Parameters, are_waited_for_while_they_are_written)
{
    const std::string text = whole();
    const auto values = read_values_in_force([&] {
        rests_++;
        if (rests_ == 40)
            support::write_file(OSD_TMP_PARAM, text.substr(0, text.size() - 1));
        else if (rests_ == 99)
            support::write_file(OSD_TMP_PARAM, text);
    });
    ASSERT_TRUE(values);
    EXPECT_EQ(values->size(), std::size_t{OSD_PARAMS});
    EXPECT_EQ(values->at("Post0String"), "1");
    EXPECT_EQ(rests_, 99);
}

TEST_F(Parameters, that_are_there_are_not_waited_for)
{
    support::write_file(OSD_TMP_PARAM, whole());
    EXPECT_TRUE(read_values_in_force([&] { rests_++; }));
    EXPECT_EQ(rests_, 0);
}

TEST_F(Parameters, are_not_waited_for_without_an_end)
{
    EXPECT_THROW(read_values_in_force([&] { rests_++; }), std::runtime_error);
    EXPECT_EQ(rests_, 100);
}

TEST_F(Parameters, are_not_waited_for_when_the_server_has_ended)
{
    EXPECT_EQ(read_values_in_force([&] {
                  rests_++;
                  requests_.reset();
              }),
              std::nullopt);
    EXPECT_EQ(rests_, 1);
}

} // namespace
