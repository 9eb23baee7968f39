// Ghost selections for the tool: detection, mask files, outlines, and their use in a merge.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli.hpp"
#include "imageio.hpp"
#include "pipeline.hpp"

namespace bvcli {

constexpr int kDefaultGhostThreshold = 70;

// One bit per pixel, row order, first pixel of a byte in its top bit.
struct PixelMask {
    int width = 0, height = 0;
    std::vector<uint8_t> bits;
    bool get(size_t p) const { return (bits[p >> 3] >> (7 - (p & 7))) & 1; }
    size_t count() const;
};

// Detected ghosts of a bracket set. evStep and exposures as the library
// takes them (evStep <= -0.5: exposures given).
PixelMask detect_ghosts(const BracketSet &set, int threshold, float ev_step,
                        std::vector<float> exposures, int threads);

// Selections of a mask file filled into one plane per bracket (n planes).
struct SlotMask {
    int width = 0, height = 0, planes = 0;
    std::vector<int32_t> slots;
    std::vector<uint8_t> bits;  // planes * width * height bits
    size_t selections = 0;
};
SlotMask read_selections(const std::string &path, int width, int height, int brackets);

// Outlines of the mask's regions (holes filled), written as a mask file whose
// selections all name bracket `exposure`. Returns the number of regions.
int write_outlines(const std::string &path, const std::string &shown, const PixelMask &mask,
                   int exposure);

// Options of `merge` that bring ghost handling in.
struct GhostOptions {
    std::string mode;  // "", "auto", or a mask file
    int reference = -1;  // bracket used inside detected ghosts; -1: the middle one
    int threshold = kDefaultGhostThreshold;
};
void add_ghost_options(std::vector<OptionSpec> &specs);
// Reads them; `brackets` bounds --ghost-ref.
GhostOptions read_ghost_options(const Args &args, int brackets);

// Replaces the merged pixels inside ghost regions by those of one bracket
// (auto: the reference bracket, with `detected` or a fresh detection; a
// mask file: each selection's bracket), brought to the merge's scale.
// Pixels black or clipped in that bracket keep the merge. Returns the number
// of pixels replaced.
size_t remove_ghosts(const BracketSet &set, const MergeReport &report, const GhostOptions &opt,
                     HdrImage &hdr, int threads, const PixelMask *detected = nullptr);

// One line saying what remove_ghosts did.
void print_ghost_removal(const GhostOptions &opt, const MergeReport &report, size_t replaced,
                         const BracketSet &set);

// The demo: paints a person walking across the room into the brackets
// (moved a little between shots) and returns the pixels it ever covers.
struct BracketPlan;
std::vector<uint8_t> add_walking_person(const FloatImage &scene, const BracketPlan &plan,
                                        uint64_t seed, BracketSet &set);
// Detects (with `exposures`) and removes the ghosts of a merged demo set:
// writes ghost-mask.png, deghosted.hdr and ghosts-before-after.png, leaves
// the ghost-free image in hdr, and returns lines for the summary (with the
// coverage of `moved` when given).
std::vector<std::string> demo_ghosts(const BracketSet &set, const MergeReport &report,
                                     const std::vector<float> &exposures, HdrImage &hdr, const std::vector<uint8_t> &moved,
                                     const std::string &out_dir, int threads,
                                     std::vector<std::string> &written);

}  // namespace bvcli
