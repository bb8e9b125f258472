// The request channel between the tool and the server: two FIFOs at fixed paths, a request word of
// 32 bits one way and a reply word of 32 bits the other, in the machine's byte order.
//
// A client makes the reply FIFO, writes its word into the request FIFO and blocks in the open of
// the reply FIFO until the server replies; then it removes that FIFO. Parameters do not travel in
// the word: they lie in the temporary parameter file, which the client rewrites before it asks.
// There is no time-out and no lock: a server that never replies leaves the client blocked, and a
// client that dies after its request leaves the server blocked in its reply.
#pragma once

#include "common/cmn.h"

#include <sys/types.h>

constexpr const char *OSD_FIFO_REQ = "/tmp/osd_fifo_req";
constexpr const char *OSD_FIFO_ACK = "/tmp/osd_fifo_ack";
constexpr mode_t OSD_FIFO_MODE = 0644;

// The parameters in force, all 164 of them as one section, and those before the last update.
constexpr const char *OSD_TMP_PARAM = "/tmp/osd_tmp_param.txt";
constexpr const char *OSD_TMP_PARAM_BAK = "/tmp/osd_tmp_param.bak";

// The code in the low byte of a request word.
constexpr std::uint32_t OSD_REQUEST_UPDATE = 0x55; // 'U'
constexpr std::uint32_t OSD_REQUEST_STOP = 0x53;   // 'S'; clients send nothing above it

// Reply words, compared whole.
constexpr std::uint32_t OSD_REPLY_ACK = 0x41;  // 'A': carried out
constexpr std::uint32_t OSD_REPLY_NACK = 0x4E; // 'N': failed

// The update word for a mask of posts to redraw, bit i for post i, and the mask test of the
// server, which takes the word as a signed number: one with bit 31 set divides toward zero.
constexpr std::uint32_t osd_update_word(std::uint32_t posts)
{
    return (posts << 8) + OSD_REQUEST_UPDATE;
}

constexpr std::uint32_t osd_request_code(std::uint32_t word)
{
    return word & 0xFF;
}

constexpr bool osd_update_has_post(std::uint32_t word, int post)
{
    return (cmn_cut<std::int32_t>(word) / 256 & 1 << post) != 0;
}

// The running test: does a server hold the request FIFO's read end? Writes nothing to it.
bool osd_server_is_running();

// One whole exchange from the client's side, blocking. 0 for the reply `A`; -EREMOTEIO without a
// report if no server runs; -EACCES after a report if a FIFO can't be made or opened; -EFAULT for
// the reply `N` without a report, and after one if the word can't be sent, no whole reply comes or
// it is another word. Leaves no reply FIFO behind, unless no server runs, when it isn't touched, or
// making it failed.
int osd_send_request(std::uint32_t word);

// One reply from the server's side; blocks until a client waits for it. -EFAULT after a report.
int osd_send_ack(std::uint32_t word);
