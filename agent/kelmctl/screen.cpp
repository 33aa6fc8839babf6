// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/screen.h"

#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "libkelm/error.h"

namespace kelmctl
{

namespace
{

constexpr std::string_view enter_sequence = "\x1b[?1049h\x1b[?25l"; // alternate screen, no cursor
constexpr std::string_view leave_sequence = "\x1b[0m\x1b[?25h\x1b[?1049l";
constexpr std::string_view home_sequence = "\x1b[H";
constexpr std::string_view end_of_line = "\x1b[0m\x1b[K";
constexpr std::string_view clear_below = "\x1b[J";

constexpr int deadly_signals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGABRT,
                                  SIGBUS, SIGFPE, SIGILL,  SIGSEGV, SIGPIPE};

// The handler runs once, with its signal not blocked.
constexpr int one_shot = static_cast<int>(SA_RESETHAND | SA_NODEFER);

// What the signal handlers need.
bool has_keyboard = false;
termios saved_keyboard;
volatile sig_atomic_t is_active = 0;
sigset_t mask_while_waiting;

bool put(std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0)
            text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

// These two are called by signal handlers.
void enter()
{
    if (has_keyboard) {
        termios keys = saved_keyboard;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        keys.c_cc[VMIN] = 1;
        keys.c_cc[VTIME] = 0;
        tcsetattr(STDIN_FILENO, TCSADRAIN, &keys);
    }
    put(enter_sequence);
    is_active = 1;
}

void leave()
{
    if (is_active == 0)
        return;
    is_active = 0;
    put(leave_sequence);
    if (has_keyboard)
        tcsetattr(STDIN_FILENO, TCSADRAIN, &saved_keyboard);
}

void handle(int number, void (*handler)(int), int flags)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(number, &action, nullptr);
}

void die(int number)
{
    leave();
    raise(number);
}

void stop(int number)
{
    const int saved_errno = errno;
    leave();
    raise(number);
    // Continued.
    handle(number, stop, one_shot);
    enter();
    errno = saved_errno;
}

void wake(int) {}

} // namespace

screen::screen()
{
    has_keyboard = isatty(STDIN_FILENO) != 0 && tcgetattr(STDIN_FILENO, &saved_keyboard) == 0;
    sigset_t waiting_only;
    sigemptyset(&waiting_only);
    sigaddset(&waiting_only, SIGWINCH);
    sigaddset(&waiting_only, SIGCONT);
    sigprocmask(SIG_BLOCK, &waiting_only, &mask_while_waiting);
    handle(SIGWINCH, wake, 0);
    handle(SIGCONT, wake, 0);
    handle(SIGTSTP, stop, one_shot);
    for (const int number : deadly_signals)
        handle(number, die, one_shot);
    enter();
}

screen::~screen()
{
    leave();
    for (const int number : deadly_signals)
        handle(number, SIG_DFL, 0);
    for (const int number : {SIGTSTP, SIGCONT, SIGWINCH})
        handle(number, SIG_DFL, 0);
    sigprocmask(SIG_SETMASK, &mask_while_waiting, nullptr);
}

std::pair<std::size_t, std::size_t> screen::size() const
{
    winsize window = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0 || window.ws_col == 0 || window.ws_row == 0)
        return {80, 24};
    return {window.ws_col, window.ws_row};
}

void screen::draw(const std::vector<top_line> &lines)
{
    std::string text(home_sequence);
    const char *separator = "";
    for (const auto &line : lines) {
        text += separator;
        text += line.look == top_line::style::heading ? "\x1b[7m"
                : line.look == top_line::style::alarm ? "\x1b[1;31m"
                                                      : "";
        text += line.text;
        text += end_of_line;
        separator = "\r\n";
    }
    text += clear_below;
    if (!put(text))
        kelm::throw_errno(errno, "cannot write to the terminal");
}

screen::event screen::wait(std::chrono::milliseconds time) const
{
    pollfd keyboard = {.fd = has_keyboard ? STDIN_FILENO : -1, .events = POLLIN, .revents = 0};
    const timespec timeout = {.tv_sec = time.count() / 1000,
                              .tv_nsec = time.count() % 1000 * 1'000'000};
    const int ready = ppoll(&keyboard, 1, &timeout, &mask_while_waiting);
    if (ready < 0)
        return event::redraw; // a signal: the terminal has changed, or is ours again
    if (ready == 0)
        return event::time_is_up;
    char key = 'q'; // where the terminal is gone
    const ssize_t got = read(STDIN_FILENO, &key, 1);
    return got <= 0 || key == 'q' || key == 'Q' ? event::quit : event::refresh;
}

} // namespace kelmctl
