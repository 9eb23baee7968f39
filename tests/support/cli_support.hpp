// Running the built brackvista tool, its one-line errors, OpenImageIO pictures.
#pragma once

#include <OpenImageIO/imageio.h>
#include <sys/wait.h>

#include <atomic>
#include <filesystem>
#include <future>

#include "test_support.hpp"

namespace bvtest {

#ifdef BV_CLI_PATH
inline const char *const kTool = BV_CLI_PATH;
#else
inline const char *const kTool = "";  // empty: not built
#endif

#define BV_REQUIRE_TOOL() \
    if (!*bvtest::kTool)  \
    GTEST_SKIP() << "the brackvista tool is not built (BV_BUILD_CLI=OFF or no OpenImageIO)"

using Args = std::vector<std::string>;

inline Args cat(Args a, const Args &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct Result {
    int code = -1;  // -1: killed by a signal
    std::string out, err;
};

inline std::string quote(const std::string &s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// Runs the tool (from `cwd` when given); safe from several threads at once.
inline Result run(const Args &args, const std::string &cwd = "") {
    static std::atomic<int> counter{0};
    const std::string base = temp_path("run" + std::to_string(counter++));
    std::string cmd = cwd.empty() ? "" : "cd " + quote(cwd) + " && ";
    // Sanitizer builds only: OpenImageIO's PNG reader leaks (full stacks to match it).
    cmd +=
        "ASAN_OPTIONS=\"${ASAN_OPTIONS:-}:fast_unwind_on_malloc=0\" "
        "LSAN_OPTIONS=print_suppressions=0:suppressions=" +
        quote(std::filesystem::absolute("tests/data/sanitizer/openimageio-leaks.supp")) + " " +
        quote(kTool);
    for (const auto &a : args) cmd += " " + quote(a);
    const int status =
        std::system((cmd + " >" + quote(base + ".out") + " 2>" + quote(base + ".err")).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text_of(base + ".out"),
            text_of(base + ".err")};
}

// Runs the calls side by side: start-up dominates short calls.
inline std::vector<Result> run_all(const std::vector<Args> &calls) {
    std::vector<std::future<Result>> runs;
    for (const auto &a : calls) runs.push_back(std::async(std::launch::async, run, a, ""));
    std::vector<Result> r;
    for (auto &f : runs) r.push_back(f.get());
    return r;
}

// True when every call succeeded; says which did not.
inline bool all_ok(const std::vector<Result> &results) {
    bool ok = true;
    for (size_t i = 0; i < results.size(); ++i) {
        EXPECT_EQ(results[i].code, 0) << "call " << i << ": " << results[i].err;
        ok = ok && results[i].code == 0;
    }
    return ok;
}

// A call the tool refuses: its exit code and a part of its one-line reason.
struct Refusal {
    Args args;
    int code;
    std::string says;
};

// Each call fails with its code; stderr's last line starts "brackvista" and says
// why. `alone`: that line is all there is (no library diagnostics before it).
inline std::vector<Result> expect_refused(const std::vector<Refusal> &calls, bool alone = true) {
    std::vector<Args> args;
    for (const auto &c : calls) args.push_back(c.args);
    const std::vector<Result> results = run_all(args);
    for (size_t i = 0; i < calls.size(); ++i) {
        std::string call = "brackvista";
        for (const auto &a : calls[i].args) call += " " + a;
        SCOPED_TRACE(call);
        const std::string &e = results[i].err;
        EXPECT_EQ(results[i].code, calls[i].code) << e;
        EXPECT_TRUE(e.size() > 1 && e.back() == '\n') << "no line: " << e;
        if (e.size() < 2) continue;
        const size_t line = alone ? 0 : e.rfind('\n', e.size() - 2) + 1;  // npos + 1 is 0
        EXPECT_EQ(e.find('\n', line) + 1, e.size()) << "not one line: " << e;
        EXPECT_EQ(e.compare(line, 10, "brackvista"), 0) << e;
        EXPECT_NE(e.find(calls[i].says, line), std::string::npos) << e;
    }
    return results;
}

struct Image {
    int width = 0, height = 0, channels = 0;
    OIIO::TypeDesc format;
    std::vector<float> px;
    float at(int x, int y, int c) const { return px[(size_t(y) * width + x) * channels + c]; }
    long level(int x, int y, int c) const { return std::lround(at(x, y, c) * 255); }
    // Width, height and bytes per channel in one comparable value.
    std::tuple<int, int, size_t> shape() const { return {width, height, format.size()}; }
};

// The whole picture as floats; no pixels when it cannot be read.
inline Image read_image(const std::string &path) {
    Image img;
    auto in = OIIO::ImageInput::open(path);
    if (!in) return img;
    const auto &s = in->spec();
    img.width = s.width, img.height = s.height, img.channels = s.nchannels, img.format = s.format;
    img.px.resize(size_t(s.width) * s.height * s.nchannels);
    if (!in->read_image(0, 0, 0, s.nchannels, OIIO::TypeDesc::FLOAT, img.px.data())) img.px.clear();
    return img;
}

// Writes interleaved pixels in the layout and sample type `format` describes.
inline bool write_image(const std::string &path, const OIIO::ImageSpec &format, const void *px) {
    auto out = OIIO::ImageOutput::create(path);
    return out && out->open(path, format) && out->write_image(format.format, px) && out->close();
}

inline bool write_rgb8(const std::string &path, int w, int h, const uint8_t *px) {
    return write_image(path, OIIO::ImageSpec(w, h, 3, OIIO::TypeDesc::UINT8), px);
}

// An empty folder of that name in the temporary folder.
inline std::string fresh_dir(const std::string &name) {
    const std::string d = temp_path(name);
    std::filesystem::remove_all(d);
    std::filesystem::create_directories(d);
    return d;
}

}  // namespace bvtest
