// Progress bar, interrupt handling and atomic outputs.
#include "progress.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>

#include "cli.hpp"

namespace bvcli {
namespace {

volatile std::sig_atomic_t g_interrupts = 0;

// Temporary outputs the second Ctrl-C must remove; plain arrays because the
// signal handler may only touch async-signal-safe state.
constexpr int kSlots = 16;
constexpr size_t kPathMax = 4096;
char g_pending[kSlots][kPathMax];
volatile std::sig_atomic_t g_pending_used[kSlots];

void on_interrupt(int) {
    g_interrupts = g_interrupts + 1;
    if (g_interrupts >= 2) {
        for (int i = 0; i < kSlots; ++i)
            if (g_pending_used[i]) unlink(g_pending[i]);
        const char msg[] = "\nbrackvista: cancelled\n";
        ssize_t ignored = write(2, msg, sizeof msg - 1);
        (void)ignored;
        _exit(kCancelled);
    }
}

bool g_quiet = false;
bool g_force = false;
bool g_drawn = false;
int g_last_cells = -1;
Progress *g_current = nullptr;
std::string g_label;

bool bar_enabled() { return !g_quiet && (g_force || isatty(2)); }

void draw(float fraction) {
    if (!bar_enabled()) return;
    fraction = std::clamp(fraction, 0.0f, 1.0f);
    const int width = 30;
    int cells = static_cast<int>(fraction * width + 0.5f);
    int pct = static_cast<int>(fraction * 100 + 0.5f);
    if (g_drawn && cells * 1000 + pct == g_last_cells) return;
    g_last_cells = cells * 1000 + pct;
    std::string bar(static_cast<size_t>(cells), '#');
    bar.resize(width, '.');
    std::fprintf(stderr, "\r%-22.22s [%s] %3d%%", g_label.c_str(), bar.c_str(), pct);
    std::fflush(stderr);
    g_drawn = true;
}

}  // namespace

void install_interrupt_handler() {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_interrupt;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

bool interrupted() { return g_interrupts != 0; }

void check_interrupted() {
    if (interrupted()) throw Failure(kCancelled, "cancelled");
}

void set_progress_mode(bool quiet, bool force) {
    g_quiet = quiet;
    g_force = force;
}

Progress::Progress(const std::string &label) : previous_(g_current) {
    progress_clear();
    g_current = this;
    g_label = label;
    g_last_cells = -1;
    draw(0.0f);
}

Progress::~Progress() {
    // A failing step leaves its bar unfinished and erased, not at 100 %.
    if (g_drawn && bar_enabled() && !interrupted() && std::uncaught_exceptions() == 0) {
        draw(1.0f);
        std::fputc('\n', stderr);
        g_drawn = false;
    }
    progress_clear();
    g_current = previous_;
}

void Progress::update(float fraction) {
    if (g_current == this) draw(fraction);
}

void Progress::library_callback(int32_t *cancel, float fraction) {
    if (g_current) g_current->update(fraction);
    if (cancel && interrupted()) *cancel = 1;
}

void progress_clear() {
    if (g_drawn) {
        std::fprintf(stderr, "\r%60s\r", "");
        std::fflush(stderr);
        g_drawn = false;
    }
}

std::string extension_of(const std::string &path) {
    size_t slash = path.find_last_of('/');
    size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    std::string ext = path.substr(dot);
    for (auto &c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

OutputFile::OutputFile(const std::string &path) : path_(path) {
    if (path.empty() || path.back() == '/') fail("output path '" + path + "' names no file");
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        fail("cannot write '" + path + "': it is a folder");
    size_t slash = path.find_last_of('/');
    std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    // The temporary keeps the extension so that image writers pick the format.
    temp_ = dir + "." + base + ".part" + std::to_string(getpid()) + extension_of(path);
    if (temp_.size() >= kPathMax) fail("output path '" + path + "' is too long");
    std::FILE *f = std::fopen(temp_.c_str(), "wb");
    if (!f) fail("cannot write '" + path + "': " + std::strerror(errno));
    std::fclose(f);
    for (int i = 0; i < kSlots; ++i) {
        if (!g_pending_used[i]) {
            std::memcpy(g_pending[i], temp_.c_str(), temp_.size() + 1);
            g_pending_used[i] = 1;
            slot_ = i;
            break;
        }
    }
}

OutputFile::~OutputFile() {
    if (slot_ >= 0) g_pending_used[slot_] = 0;
    if (!committed_) std::remove(temp_.c_str());
}

void OutputFile::commit() {
    check_interrupted();
    if (std::rename(temp_.c_str(), path_.c_str()) != 0)
        fail("cannot write '" + path_ + "': " + std::strerror(errno));
    committed_ = true;
    if (slot_ >= 0) g_pending_used[slot_] = 0;
    slot_ = -1;
}

}  // namespace bvcli
