// Both ends of the request channel.
#include "server/channel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr std::int32_t OSD_WORD_SIZE = sizeof(std::uint32_t);

bool osd_server_is_running()
{
    const int fd = open(OSD_FIFO_REQ, O_WRONLY | O_NONBLOCK);
    if (fd == -1)
        return false;
    close(fd);
    return true;
}

static int osd_write_request(std::uint32_t word)
{
    const int fd = open(OSD_FIFO_REQ, O_WRONLY);
    if (fd == -1) {
        CMN_REPORT("osd_send_request", "unable to open fifo %s for request", OSD_FIFO_REQ);
        return -EACCES;
    }
    const std::int32_t written = cmn_writen(fd, &word, sizeof word);
    close(fd);
    if (written != OSD_WORD_SIZE) {
        CMN_REPORT("osd_send_request", "failed to send request 0x%08X", word);
        return -EFAULT;
    }
    return 0;
}

static int osd_read_reply(std::uint32_t *reply)
{
    const int fd = open(OSD_FIFO_ACK, O_RDONLY); // waits until the server opens it to reply
    if (fd == -1) {
        CMN_REPORT("osd_send_request", "unable to open fifo %s for reply", OSD_FIFO_ACK);
        return -EACCES;
    }
    const std::int32_t got = cmn_readn(fd, reply, sizeof *reply);
    close(fd);
    if (got != OSD_WORD_SIZE) {
        CMN_REPORT("osd_send_request", "failed to send get reply");
        return -EFAULT;
    }
    return 0;
}

static int osd_exchange(std::uint32_t word)
{
    std::uint32_t reply = 0;

    int result = osd_write_request(word);
    if (result == 0)
        result = osd_read_reply(&reply);
    if (result != 0)
        return result;
    if (reply == OSD_REPLY_ACK)
        return 0;
    if (reply != OSD_REPLY_NACK)
        CMN_REPORT("osd_send_request", "invalid reply 0x%08X received", reply);
    return -EFAULT;
}

int osd_send_request(std::uint32_t word)
{
    if (!osd_server_is_running())
        return -EREMOTEIO;
    if (mkfifo(OSD_FIFO_ACK, OSD_FIFO_MODE) != 0 && errno != EEXIST) {
        CMN_REPORT("osd_send_request", "unable to create fifo %s for reply", OSD_FIFO_ACK);
        return -EACCES;
    }
    const int result = osd_exchange(word);
    unlink(OSD_FIFO_ACK);
    return result;
}

int osd_send_ack(std::uint32_t word)
{
    const int fd = open(OSD_FIFO_ACK, O_WRONLY); // waits until a client opens it to read
    if (fd == -1) {
        CMN_REPORT("osd_send_ack", "unable to open fifo %s for reply", OSD_FIFO_ACK);
        return -EFAULT;
    }
    const std::int32_t written = cmn_writen(fd, &word, sizeof word);
    if (written < 0)
        CMN_REPORT("osd_send_ack", "unable to send reply");
    close(fd);
    return written < 0 ? -EFAULT : 0;
}
