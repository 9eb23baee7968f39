// Command table, option parsing and failure reporting shared by every subcommand.
#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace bvcli {

// Exit codes: documented in `brackvista --help`.
enum ExitCode { kOk = 0, kFailed = 1, kUsage = 2, kCancelled = 130 };

// Thrown anywhere in a subcommand; main prints "brackvista <cmd>: <message>"
// on one line and exits with the code.
struct Failure : std::runtime_error {
    Failure(int exit_code, const std::string &message)
        : std::runtime_error(message), code(exit_code) {}
    int code;
};
[[noreturn]] void fail(const std::string &message);         // kFailed
[[noreturn]] void usage_error(const std::string &message);  // kUsage

// One option a subcommand accepts. Values are strings; typed getters check them.
struct OptionSpec {
    const char *name;   // long name without dashes
    char short_name;    // 0 = none
    const char *value;  // value placeholder for help, nullptr = flag,
                        // "[=WORD]" = flag with an optional inline value
    const char *help;
};

class Args {
public:
    // Parses argv (after the subcommand name); unknown options are usage errors.
    Args(const std::vector<OptionSpec> &specs, int argc, char **argv);
    bool has(const std::string &name) const { return values_.count(name) != 0; }
    std::string str(const std::string &name, const std::string &fallback = "") const;
    double number(const std::string &name, double fallback, double lo, double hi) const;
    int integer(const std::string &name, int fallback, int lo, int hi) const;
    const std::vector<std::string> &positional() const { return positional_; }
    bool help() const { return has("help"); }

private:
    std::map<std::string, std::string> values_;
    std::vector<std::string> positional_;
};

// Parses a number in [lo, hi]; `what` names it in the error.
double parse_number(const std::string &text, const std::string &what, double lo, double hi);

// Prints "usage" lines, a description and the options table.
void print_help(const char *usage, const char *description, const std::vector<OptionSpec> &specs,
                const char *extra = nullptr);

struct Command {
    const char *name;
    const char *summary;
    int (*run)(int argc, char **argv);
};
// Every subcommand, in the order `brackvista --help` lists them.
const std::vector<Command> &commands();

// Name of the running subcommand, for messages.
extern const char *g_command;

// Default worker thread count: the machine's cores.
int default_threads();

}  // namespace bvcli

namespace bvcli {
// Options every subcommand takes: --threads, --quiet, --progress, --help.
void add_common_options(std::vector<OptionSpec> &specs);
// Applies --quiet/--progress; returns the thread count.
int apply_common_options(const Args &args);
}  // namespace bvcli
