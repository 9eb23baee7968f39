// Option parsing and help output for the subcommands.
#include "cli.hpp"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace bvcli {

const char *g_command = "";

void fail(const std::string &message) { throw Failure(kFailed, message); }
void usage_error(const std::string &message) { throw Failure(kUsage, message); }

Args::Args(const std::vector<OptionSpec> &specs, int argc, char **argv) {
    auto find = [&](const std::string &name, char short_name) -> const OptionSpec * {
        for (const auto &s : specs)
            if ((!name.empty() && name == s.name) || (short_name && short_name == s.short_name))
                return &s;
        return nullptr;
    };
    bool options_done = false;
    for (int i = 0; i < argc; ++i) {
        std::string a = argv[i];
        if (options_done || a.size() < 2 || a[0] != '-' ||
            (a[1] != '-' && std::isdigit(static_cast<unsigned char>(a[1])))) {
            positional_.push_back(a);
            continue;
        }
        if (a == "--") {
            options_done = true;
            continue;
        }
        const OptionSpec *opt = nullptr;
        std::string value;
        bool inline_value = false;
        if (a[1] == '-') {
            std::string name = a.substr(2);
            size_t eq = name.find('=');
            if (eq != std::string::npos) {
                value = name.substr(eq + 1);
                name = name.substr(0, eq);
                inline_value = true;
            }
            opt = find(name, 0);
        } else if (a.size() == 2) {
            opt = find("", a[1]);
        }
        if (!opt)
            usage_error("unknown option '" + a + "' (see brackvista " + g_command + " --help)");
        // A placeholder in brackets ("[=WORD]") marks a value that may only
        // be given inline, so that the option also works as a plain flag.
        const bool optional = opt->value && opt->value[0] == '[';
        if (optional) {
            // Takes the inline value, if any, as it is.
        } else if (opt->value) {
            if (!inline_value) {
                if (i + 1 >= argc)
                    usage_error("option --" + std::string(opt->name) + " needs a value " +
                                opt->value);
                value = argv[++i];
            }
        } else if (inline_value) {
            usage_error("option --" + std::string(opt->name) + " takes no value");
        }
        values_[opt->name] = value;
    }
}

std::string Args::str(const std::string &name, const std::string &fallback) const {
    auto it = values_.find(name);
    return it == values_.end() ? fallback : it->second;
}

double parse_number(const std::string &text, const std::string &what, double lo, double hi) {
    errno = 0;
    char *end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno == ERANGE || !std::isfinite(v))
        usage_error(what + " must be a number, not '" + text + "'");
    if (v < lo || v > hi) {
        char buf[160];
        std::snprintf(buf, sizeof buf, "%s must lie in %g..%g (got %s)", what.c_str(), lo, hi,
                      text.c_str());
        usage_error(buf);
    }
    return v;
}

double Args::number(const std::string &name, double fallback, double lo, double hi) const {
    if (!has(name)) return fallback;
    return parse_number(str(name), "--" + name, lo, hi);
}

int Args::integer(const std::string &name, int fallback, int lo, int hi) const {
    if (!has(name)) return fallback;
    double v = parse_number(str(name), "--" + name, lo, hi);
    if (v != std::floor(v))
        usage_error("--" + name + " must be a whole number (got " + str(name) + ")");
    return static_cast<int>(v);
}

void print_help(const char *usage, const char *description, const std::vector<OptionSpec> &specs,
                const char *extra) {
    std::printf("usage: %s\n\n%s\n\noptions:\n", usage, description);
    for (const auto &s : specs) {
        std::string left = "  ";
        left += s.short_name ? std::string("-") + s.short_name + ", " : "    ";
        left += "--" + std::string(s.name);
        if (s.value) left += (s.value[0] == '[' ? "" : " ") + std::string(s.value);
        if (left.size() < 30)
            std::printf("%-30s %s\n", left.c_str(), s.help);
        else
            std::printf("%s\n%-30s %s\n", left.c_str(), "", s.help);
    }
    if (extra) std::printf("\n%s", extra);
}

int default_threads() {
    unsigned n = std::thread::hardware_concurrency();
    return n == 0 ? 1 : static_cast<int>(n > 64 ? 64 : n);
}

}  // namespace bvcli

#include "progress.hpp"

namespace bvcli {

void add_common_options(std::vector<OptionSpec> &specs) {
    specs.push_back({"threads", 'j', "N", "worker threads (default: one per core)"});
    specs.push_back({"quiet", 'q', nullptr, "print nothing but errors"});
    specs.push_back(
        {"progress", 0, nullptr, "draw the progress bar even when stderr is not a terminal"});
    specs.push_back({"help", 'h', nullptr, "show this help"});
}

int apply_common_options(const Args &args) {
    set_progress_mode(args.has("quiet"), args.has("progress"));
    return args.integer("threads", default_threads(), 1, 256);
}

}  // namespace bvcli
