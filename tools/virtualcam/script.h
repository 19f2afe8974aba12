// A scripted scene: pages laid under the camera one after another, hands
// moving over them and lighting that changes, played in real time.
#pragma once

#include <opencv2/core.hpp>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace vcam {

struct ScriptStep
{
    enum Kind { Page, Hand, Flicker };
    Kind kind = Page;
    int durationMs = 0;
    int page = 1; // Page: the page laid down; Hand/Flicker: the page under it
    int nextPage = 1; // Hand: the page left there once the hand is gone
    int amplitude = 0; // Flicker: grey levels added, then taken away
    int periodMs = 1000; // Flicker: how long each sign lasts
};

// Parses "page:3,2000;hand:1000;flicker:30000,3,1000". Malformed steps are
// left out; an empty result means no script.
std::vector<ScriptStep> parseScript(const std::string &text);

// Page k drawn at the given size: a white sheet on the desk with k printed
// large in its upper half and, below it, k in binary as eight blocks (dark
// for 1, most significant first) whose centres lie at x = 0.29 + (i + 0.5)
// · 0.42 / 8 of the width (i = 0…7) and y = 0.71 of the height.
cv::Mat renderPage(int page, int width, int height);

// Plays a script against the clock: the first frame asked for starts it.
class ScriptPlayer
{
public:
    void configure(const std::vector<ScriptStep> &steps, bool loop, const std::string &logPath);
    bool active() const { return !steps_.empty(); }

    // The picture at time now, in BGR at the given size, and a key that is
    // the same for identical pictures. Appends to the log the first time a
    // step is shown.
    const cv::Mat &frame(std::chrono::steady_clock::time_point now, int width, int height,
                         std::string *key, bool *still);

private:
    const cv::Mat &pageAt(int page, int width, int height);
    void log(size_t index, const char *kind, int page);

    std::vector<ScriptStep> steps_;
    bool loop_ = false;
    std::string logPath_;
    bool started_ = false;
    std::chrono::steady_clock::time_point start_;
    long long lastPass_ = -1;
    long long lastStep_ = -1;
    int cachedPage_ = 0;
    cv::Size cachedSize_;
    cv::Mat page_;
    cv::Mat out_;
    uint64_t handFrames_ = 0;
};

} // namespace vcam
