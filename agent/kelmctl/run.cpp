// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/run.h"

#include <ostream>

#include "kelmctl/arguments.h"
#include "kelmctl/context.h"
#include "kelmctl/help.h"

namespace kelmctl
{

namespace
{

bool asks_for_help(std::string_view word)
{
    return word == "help" || word == "--help" || word == "-h";
}

void run_object(const options &opts, const object &object, std::span<char *const> words,
                std::ostream &out)
{
    if (words.size() == 1 && asks_for_help(words.front())) {
        out << object_help(object);
        return;
    }
    const command &command = take_command(object, words);
    if (!words.empty() && asks_for_help(words.back())) {
        out << command_help(object, command);
        return;
    }
    const arguments args(command, words);
    context ctx(opts, out);
    command.run(ctx, args);
    ctx.out.finish();
}

exit_status run_or_throw(std::span<char *const> argv, std::ostream &out, std::ostream &err)
{
    std::span<char *const> words;
    const options opts = parse_options(argv, words);
    if (opts.version) {
        out << "kelmctl " KELM_VERSION "\n";
        return success;
    }
    if (opts.help || (!words.empty() && asks_for_help(words.front()))) {
        out << overview_help();
        return success;
    }
    if (words.empty()) {
        err << overview_help();
        return usage;
    }
    run_object(opts, find_object(words.front()), words.subspan(1), out);
    return success;
}

} // namespace

exit_status run(std::span<char *const> argv, std::ostream &out, std::ostream &err)
{
    try {
        return run_or_throw(argv, out, err);
    } catch (const usage_error &problem) {
        err << "kelmctl: " << problem.what()
            << "\n'help' tells more, also after an object or a command: kelmctl help\n";
        return usage;
    } catch (const std::exception &problem) {
        err << "kelmctl: " << problem.what() << '\n';
        return failure;
    }
}

} // namespace kelmctl
