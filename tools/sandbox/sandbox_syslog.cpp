// kiv-sandbox: the log capture.  The sandbox owns the /dev/log socket; every
// datagram sent to it becomes one line of RUNDIR/syslog:
// "FACILITY.SEVERITY<tab>IDENT<tab>TEXT", with newlines, backslashes and tabs
// in TEXT escaped so that every message stays one line.

#include "sandbox.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <vector>

namespace kiv::sandbox {

namespace {

std::string escape_text(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (char c : s) {
        switch (c) {
        case '\n':
            out += "\\n";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            out += c;
        }
    }
    return out;
}

bool is_timestamp(std::string_view s) {
    // "Mmm dd hh:mm:ss " as written by glibc and util-linux logger.
    if (s.size() < 16) return false;
    auto alpha = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); };
    auto digit = [](char c) { return c >= '0' && c <= '9'; };
    return alpha(s[0]) && alpha(s[1]) && alpha(s[2]) && s[3] == ' ' &&
           (digit(s[4]) || s[4] == ' ') && digit(s[5]) && s[6] == ' ' && digit(s[7]) &&
           digit(s[8]) && s[9] == ':' && digit(s[10]) && digit(s[11]) && s[12] == ':' &&
           digit(s[13]) && digit(s[14]) && s[15] == ' ';
}

std::string format_syslog(std::string_view msg) {
    while (!msg.empty() && msg.back() == '\0')
        msg.remove_suffix(1);
    int pri = 8 | 5; // user.notice, what syslogd assumes without a priority
    if (msg.size() > 2 && msg[0] == '<') {
        std::size_t i = 1;
        int v = 0;
        while (i < msg.size() && i < 5 && msg[i] >= '0' && msg[i] <= '9')
            v = v * 10 + (msg[i++] - '0');
        if (i > 1 && i < msg.size() && msg[i] == '>') {
            pri = v;
            msg.remove_prefix(i + 1);
        }
    }
    if (is_timestamp(msg)) msg.remove_prefix(16);
    std::string_view ident, text = msg;
    std::size_t colon = msg.find(": ");
    if (colon == std::string_view::npos && !msg.empty() && msg.back() == ':')
        colon = msg.size() - 1;
    if (colon != std::string_view::npos &&
        msg.substr(0, colon).find(' ') == std::string_view::npos) {
        ident = msg.substr(0, colon);
        text = msg.substr(std::min(colon + 2, msg.size()));
        // Drop the "[pid]" that LOG_PID appends: pids are meaningless here.
        if (!ident.empty() && ident.back() == ']') {
            std::size_t lb = ident.rfind('[');
            if (lb != std::string_view::npos) ident = ident.substr(0, lb);
        }
    }
    std::string line = std::to_string(pri >> 3) + "." + std::to_string(pri & 7) + "\t";
    line += ident;
    line += '\t';
    line += escape_text(text);
    line += '\n';
    return line;
}

} // namespace

int open_log_socket() {
    int log_sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (log_sock < 0) fail_errno("socket");
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, "/dev/log");
    if (bind(log_sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
        fail_errno("bind /dev/log");
    chmod("/dev/log", 0666);
    int rcvbuf = 4 << 20;
    setsockopt(log_sock, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof rcvbuf);
    return log_sock;
}

void drain_log(int sock, int out_fd) {
    static std::vector<char> buf(256 * 1024);
    for (;;) {
        ssize_t n = recv(sock, buf.data(), buf.size(), MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return;
        std::string line = format_syslog(std::string_view(buf.data(), static_cast<std::size_t>(n)));
        write_all(out_fd, line.data(), line.size());
    }
}

} // namespace kiv::sandbox
