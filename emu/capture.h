// A pcap capture of every datagram the emulated device receives and sends.
// Link type USER0; each record starts with an 8-byte pseudo-header:
//
//    0     1         2       4       6      8
//   +-----+---------+-------+-------+------+---------------------
//   | dir | service | node  | port  | 0 0  | the datagram
//   |     |         | be16  | be16  |      |
//   +-----+---------+-------+-------+------+---------------------
//   dir: 0 to the device, 1 from it; service: 0 forwarding, 1 event,
//   2 control (node and port 0)
#ifndef L2VFIB_EMU_CAPTURE_H
#define L2VFIB_EMU_CAPTURE_H

#include <cstdint>
#include <functional>
#include <span>
#include <string>

typedef struct pcap pcap_t;
typedef struct pcap_dumper pcap_dumper_t;

namespace l2vfib::emu {

// A capture bounded as tcpdump's -C bounds one: past its bound a file is
// closed and the next begins, keeping the newest few. Each file is a
// whole capture of its own, its header first.
class Capture {
  public:
    // The files kept besides the one written: FILE.1 (the newest of them)
    // to FILE.3; the oldest goes at each rotation.
    static constexpr int kKeptFiles = 3;

    // log receives a line when the capture stops on its own (a rotation
    // that failed).
    explicit Capture(std::function<void(const std::string &)> log) : log_(std::move(log)) {}
    ~Capture();
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;

    // Starts capturing to path: a regular file of this user's, created or
    // emptied, mode 0600, never through a symlink at its last component.
    // Its directory is opened once; the rotations happen there. A file is
    // closed before a record that would take it past maxBytes, so none is
    // larger unless one record alone is (64 KiB at most). False, with
    // *error set and nothing captured, when the file cannot be had.
    bool Open(const std::string &path, uint64_t maxBytes, std::string *error);

    void Record(bool fromDevice, int service, std::span<const uint8_t> datagram);

  private:
    bool Begin(int fd, std::string *error);
    void End();
    void Rotate();

    std::function<void(const std::string &)> log_;
    int dir_ = -1;
    std::string name_;  // the file's name in dir_
    std::string path_;  // as given, for messages
    uint64_t maxBytes_ = 0;
    uint64_t written_ = 0;  // bytes in the current file
    pcap_t *pcap_ = nullptr;
    pcap_dumper_t *dumper_ = nullptr;
};

}  // namespace l2vfib::emu

#endif
