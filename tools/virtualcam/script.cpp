#include "script.h"

#include "scene.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <sstream>

namespace vcam {

namespace {

const cv::Scalar kPaper(236, 240, 242);
const cv::Scalar kInk(40, 38, 36);
const cv::Scalar kHand(52, 66, 96); // a dark, skin-brown hand and sleeve
constexpr int kCodeBits = 8;

bool parseInts(const std::string &text, std::vector<int> *out)
{
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        try {
            size_t used = 0;
            const int v = std::stoi(item, &used);
            if (used != item.size())
                return false;
            out->push_back(v);
        } catch (...) {
            return false;
        }
    }
    return true;
}

long long realtimeMs()
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// A hand and its sleeve reaching in from below; the palm's centre at x
// (fraction of the width, may lie outside the picture).
void drawHand(cv::Mat &img, double x)
{
    const int w = img.cols, h = img.rows;
    const cv::Point palm(static_cast<int>(x * w), h / 2);
    cv::ellipse(img, palm,
                cv::Size(std::max(1, static_cast<int>(0.09 * w)),
                         std::max(1, static_cast<int>(0.16 * h))),
                0, 0, 360, kHand, cv::FILLED, cv::LINE_AA);
    const int arm = static_cast<int>(0.06 * w);
    cv::rectangle(img, cv::Point(palm.x - arm, palm.y), cv::Point(palm.x + arm, h), kHand,
                  cv::FILLED);
}

} // namespace

std::vector<ScriptStep> parseScript(const std::string &text)
{
    std::vector<ScriptStep> steps;
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ';')) {
        const size_t colon = item.find(':');
        if (colon == std::string::npos)
            continue;
        const std::string kind = item.substr(0, colon);
        std::vector<int> v;
        if (!parseInts(item.substr(colon + 1), &v) || v.empty())
            continue;
        ScriptStep s;
        if (kind == "page" && v.size() == 2 && v[0] >= 0 && v[0] < (1 << kCodeBits) && v[1] > 0) {
            s.kind = ScriptStep::Page;
            s.page = v[0];
            s.durationMs = v[1];
        } else if (kind == "hand" && v.size() == 1 && v[0] > 0) {
            s.kind = ScriptStep::Hand;
            s.durationMs = v[0];
        } else if (kind == "flicker" && (v.size() == 2 || v.size() == 3) && v[0] > 0 && v[1] >= 0
                   && v[1] <= 255 && (v.size() == 2 || v[2] > 0)) {
            s.kind = ScriptStep::Flicker;
            s.durationMs = v[0];
            s.amplitude = v[1];
            if (v.size() == 3)
                s.periodMs = v[2];
        } else {
            continue;
        }
        steps.push_back(s);
    }
    // The pages under hands and flicker: the one lying there before, and
    // for a hand the one of the page step right after it (the hand turns it).
    int current = steps.empty() || steps[0].kind != ScriptStep::Page ? 1 : steps[0].page;
    for (size_t i = 0; i < steps.size(); ++i) {
        ScriptStep &s = steps[i];
        if (s.kind == ScriptStep::Page) {
            current = s.page;
            continue;
        }
        s.page = current;
        s.nextPage = current;
        if (s.kind == ScriptStep::Hand && i + 1 < steps.size()
            && steps[i + 1].kind == ScriptStep::Page)
            s.nextPage = steps[i + 1].page;
    }
    return steps;
}

cv::Mat renderPage(int page, int width, int height)
{
    SceneSpec sheet;
    sheet.kind = SceneSpec::Sheets;
    sheet.sheets.push_back(SheetSpec{ 0.5, 0.5, 0.55, 0.7, 0 });
    cv::Mat img = renderScene(sheet, width, height);

    const auto px = [width](double f) { return static_cast<int>(f * width); };
    const auto py = [height](double f) { return static_cast<int>(f * height); };
    cv::rectangle(img, cv::Point(px(0.26), py(0.26)), cv::Point(px(0.74), py(0.80)), kPaper,
                  cv::FILLED);

    // The number, as large as fits the upper half of the cleared area.
    const std::string text = std::to_string(page);
    const int font = cv::FONT_HERSHEY_SIMPLEX;
    int base = 0;
    const cv::Size unit = cv::getTextSize(text, font, 1.0, 1, &base);
    const double scale = std::min(0.40 * width / unit.width, 0.28 * height / unit.height);
    const int thick = std::max(1, static_cast<int>(scale * 2.2));
    const cv::Size box = cv::getTextSize(text, font, scale, thick, &base);
    cv::putText(img, text, cv::Point((width - box.width) / 2, py(0.60)), font, scale, kInk, thick,
                cv::LINE_AA);

    // The same number in blocks, for reading back without recognising digits.
    const double pitch = 0.42 / kCodeBits;
    for (int i = 0; i < kCodeBits; ++i) {
        if (!((page >> (kCodeBits - 1 - i)) & 1))
            continue;
        const double cx = 0.29 + (i + 0.5) * pitch;
        cv::rectangle(img, cv::Point(px(cx - 0.35 * pitch), py(0.67)),
                      cv::Point(px(cx + 0.35 * pitch), py(0.75)), kInk, cv::FILLED);
    }
    return img;
}

void ScriptPlayer::configure(const std::vector<ScriptStep> &steps, bool loop,
                             const std::string &logPath)
{
    steps_ = steps;
    loop_ = loop;
    logPath_ = logPath;
    started_ = false;
    lastPass_ = lastStep_ = -1;
    cachedPage_ = -1;
}

const cv::Mat &ScriptPlayer::pageAt(int page, int width, int height)
{
    if (page != cachedPage_ || cachedSize_ != cv::Size(width, height) || page_.empty()) {
        page_ = renderPage(page, width, height);
        cachedPage_ = page;
        cachedSize_ = cv::Size(width, height);
    }
    return page_;
}

void ScriptPlayer::log(size_t index, const char *kind, int page)
{
    if (logPath_.empty())
        return;
    if (FILE *f = std::fopen(logPath_.c_str(), "a")) {
        std::fprintf(f, "%lld %zu %s %d\n", realtimeMs(), index, kind, page);
        std::fclose(f);
    }
}

const cv::Mat &ScriptPlayer::frame(std::chrono::steady_clock::time_point now, int width, int height,
                                   std::string *key, bool *still)
{
    if (!started_) {
        started_ = true;
        start_ = now;
    }
    long long total = 0;
    for (const ScriptStep &s : steps_)
        total += s.durationMs;
    long long t = std::chrono::duration_cast<std::chrono::milliseconds>(now - start_).count();
    const long long pass = t / total;
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    if (!loop_ && pass > 0) {
        // Played once: the last page stays, still and evenly lit.
        if (lastStep_ != static_cast<long long>(steps_.size())) {
            lastStep_ = static_cast<long long>(steps_.size());
            log(steps_.size(), "end",
                steps_.back().kind == ScriptStep::Hand ? steps_.back().nextPage
                                                       : steps_.back().page);
        }
        const int page = steps_.back().kind == ScriptStep::Hand ? steps_.back().nextPage
                                                                : steps_.back().page;
        *key = "script:page:" + std::to_string(page) + ":" + size;
        *still = true;
        return pageAt(page, width, height);
    }
    t -= pass * total;
    size_t index = 0;
    while (t >= steps_[index].durationMs) {
        t -= steps_[index].durationMs;
        ++index;
    }
    const ScriptStep &s = steps_[index];
    static const char *const names[] = { "page", "hand", "flicker" };
    if (pass != lastPass_ || static_cast<long long>(index) != lastStep_) {
        lastPass_ = pass;
        lastStep_ = static_cast<long long>(index);
        log(index, names[s.kind], s.kind == ScriptStep::Hand ? s.nextPage : s.page);
    }

    switch (s.kind) {
    case ScriptStep::Hand: {
        const double f = double(t) / s.durationMs;
        pageAt(f < 0.5 ? s.page : s.nextPage, width, height).copyTo(out_);
        drawHand(out_, 0.2 + 0.6 * f); // over the page for the whole step
        *key = "script:hand:" + std::to_string(++handFrames_) + ":" + size;
        *still = false;
        return out_;
    }
    case ScriptStep::Flicker: {
        const bool up = (t / s.periodMs) % 2 == 0;
        const int offset = up ? s.amplitude : -s.amplitude;
        cv::add(pageAt(s.page, width, height), cv::Scalar::all(offset), out_);
        *key = "script:page:" + std::to_string(s.page) + ":" + std::to_string(offset) + ":" + size;
        *still = true;
        return out_;
    }
    case ScriptStep::Page:
    default:
        *key = "script:page:" + std::to_string(s.page) + ":" + size;
        *still = true;
        return pageAt(s.page, width, height);
    }
}

} // namespace vcam
