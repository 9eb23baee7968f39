// Progress bar on stderr, Ctrl-C handling and outputs that appear only when complete.
#pragma once

#include <cstdint>
#include <string>

namespace bvcli {

// First Ctrl-C asks the running operation to stop (through the library's
// cancel flag and between steps); a second one removes pending temporary
// outputs and exits at once.
void install_interrupt_handler();
bool interrupted();
void check_interrupted();  // throws Failure(kCancelled) after Ctrl-C

// Drawn only when stderr is a terminal, unless forced; quiet hides it.
void set_progress_mode(bool quiet, bool force);

// A labelled bar; fraction in 0..1. One bar is shown at a time.
class Progress {
public:
    explicit Progress(const std::string &label);
    ~Progress();
    void update(float fraction);
    // Callback with the library's signature: draws the current bar and
    // raises the cancel flag after Ctrl-C.
    static void library_callback(int32_t *cancel, float fraction);

private:
    Progress *previous_;
};
void progress_clear();  // erases a half-drawn bar before a message

// An output file written under a temporary name in the same folder and
// renamed over `path` by commit(); without commit the temporary is removed.
// The constructor checks at once that the folder is writable.
class OutputFile {
public:
    explicit OutputFile(const std::string &path);
    ~OutputFile();
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;
    const std::string &temp() const { return temp_; }
    const std::string &path() const { return path_; }
    void commit();

private:
    std::string path_, temp_;
    int slot_ = -1;
    bool committed_ = false;
};

// Lower-case extension with the dot (".hdr"), "" when none.
std::string extension_of(const std::string &path);

}  // namespace bvcli
