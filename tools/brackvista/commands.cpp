// The subcommand table: a new subcommand adds its cmd_*.cpp file and one line here.
#include "cli.hpp"

namespace bvcli {

int run_merge(int argc, char **argv);
int run_tonemap(int argc, char **argv);
int run_info(int argc, char **argv);
int run_demo(int argc, char **argv);
int run_enhance(int argc, char **argv);
int run_fuse(int argc, char **argv);
int run_blend(int argc, char **argv);
int run_ghosts(int argc, char **argv);

const std::vector<Command> &commands() {
    static const std::vector<Command> table = {
        {"merge", "merge bracketed exposures into a Radiance .hdr or float TIFF", run_merge},
        {"ghosts", "find what moved between brackets and write it as a mask", run_ghosts},
        {"tonemap", "render an HDR image into an 8- or 16-bit picture", run_tonemap},
        {"enhance", "render an HDR image with the local tone enhancer", run_enhance},
        {"info", "print dimensions, metadata and luminance range of an HDR file", run_info},
        {"fuse", "fuse bracketed exposures straight into one picture (no HDR file)", run_fuse},
        {"blend", "paint bracketed exposures back into a fused or tone-mapped picture", run_blend},
        {"demo", "run the whole workflow on a built-in scene or a folder of brackets", run_demo},
    };
    return table;
}

}  // namespace bvcli
