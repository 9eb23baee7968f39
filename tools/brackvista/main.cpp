// brackvista: bracketed exposures to HDR and back to pictures, from a shell.
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <string>

#include "cli.hpp"
#include "progress.hpp"

namespace {

void print_usage() {
    std::printf("usage: brackvista <command> [options] [files]\n\ncommands:\n");
    for (const auto &c : bvcli::commands()) std::printf("  %-10s %s\n", c.name, c.summary);
    std::printf(
        "\n'brackvista <command> --help' describes a command's options.\n"
        "\nexit status: 0 done, 1 the operation failed (the message says why),\n"
        "2 bad command line, 130 cancelled with Ctrl-C. Outputs are written under\n"
        "a temporary name and renamed when complete, so a failure never leaves a\n"
        "partial file behind.\n");
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2 || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h") ||
        !std::strcmp(argv[1], "help")) {
        print_usage();
        return argc < 2 ? bvcli::kUsage : bvcli::kOk;
    }
    const bvcli::Command *cmd = nullptr;
    for (const auto &c : bvcli::commands())
        if (!std::strcmp(c.name, argv[1])) cmd = &c;
    if (!cmd) {
        std::fprintf(stderr, "brackvista: unknown command '%s' (see brackvista --help)\n", argv[1]);
        return bvcli::kUsage;
    }
    bvcli::g_command = cmd->name;
    bvcli::install_interrupt_handler();
    try {
        return cmd->run(argc - 2, argv + 2);
    } catch (const bvcli::Failure &f) {
        bvcli::progress_clear();
        std::fprintf(stderr, "brackvista %s: %s\n", cmd->name, f.what());
        return f.code;
    } catch (const std::bad_alloc &) {
        bvcli::progress_clear();
        std::fprintf(stderr, "brackvista %s: out of memory\n", cmd->name);
        return bvcli::kFailed;
    } catch (const std::exception &e) {
        bvcli::progress_clear();
        std::fprintf(stderr, "brackvista %s: %s\n", cmd->name, e.what());
        return bvcli::kFailed;
    }
}
