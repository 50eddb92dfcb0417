/* The receiving end of syslog(3) and logger(1); only inside the sandbox, where /dev/log is free. */
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <regex>
#include <string>
#include <vector>

class SyslogSocket {
public:
    SyslogSocket() {
        const sockaddr_un address{AF_UNIX, "/dev/log"};
        unlink(address.sun_path);
        bound = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    }
    SyslogSocket(const SyslogSocket &) = delete;
    SyslogSocket &operator=(const SyslogSocket &) = delete;
    ~SyslogSocket() { close(fd); }

    /* TRUE as soon as exactly `record` arrived, its time stamp left out: "<174>ident[7]: text".
       Records of different processes may come in any order. */
    bool got(const std::string &record) {
        while (std::ranges::find(records, record) == records.end()) {
            pollfd readable{fd, POLLIN, 0};
            std::array<char, 8192> buffer;
            if (!bound || poll(&readable, 1, 20000) != 1) {
                return false;
            }
            const ssize_t length = recv(fd, buffer.data(), buffer.size(), 0);
            const std::string whole(buffer.data(),
                                    static_cast<size_t>(std::max<ssize_t>(length, 0)));
            records.push_back(
                std::regex_replace(whole, std::regex("^(<\\d+>)... .. ..:..:.. "), "$1"));
        }
        return true;
    }

    /* TRUE when something arrived that got() has not read. */
    bool any() const {
        pollfd readable{fd, POLLIN, 0};
        return poll(&readable, 1, 0) == 1;
    }

    /* All that arrived so far, for the message of a failed test. */
    std::string all() const {
        std::string text;
        for (const std::string &record : records) {
            text += record + "|";
        }
        return text;
    }

private:
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool bound = false;
    std::vector<std::string> records;
};
