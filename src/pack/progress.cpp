#include "pack/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

static constexpr unsigned kWidth = 40;
static bool silenced = false;

void ProgressBar::silence() { silenced = true; }

ProgressBar::ProgressBar(std::string label, uint64_t total)
    : label_(std::move(label)), total_(total), on_terminal_(!silenced && isatty(STDERR_FILENO) == 1) {}

ProgressBar::~ProgressBar() {
    if (shown_ <= 100)
        std::fputs("\r\033[K", stderr);
}

void ProgressBar::advance(uint64_t amount) {
    done_ += amount;
    // A file may grow while it is read.
    const unsigned percent =
        total_ == 0 ? 100 : static_cast<unsigned>(std::min(done_, total_) * 100 / total_);
    if (on_terminal_ && percent != shown_)
        draw(percent);
}

void ProgressBar::draw(unsigned percent) {
    shown_ = percent;
    const unsigned filled = percent * kWidth / 100;
    const std::string bar = std::string(filled, '#') + std::string(kWidth - filled, '.');
    std::fprintf(stderr, "\r%s [%s] %3u%%", label_.c_str(), bar.c_str(), percent);
}
