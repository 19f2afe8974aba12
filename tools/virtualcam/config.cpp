#include "config.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sstream>

extern char **environ;

namespace vcam {

namespace {

std::string trim(const std::string &s)
{
    size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b])))
        ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1])))
        --e;
    return s.substr(b, e - b);
}

std::vector<std::string> split(const std::string &s, char sep)
{
    std::vector<std::string> parts;
    std::string cur;
    for (char c : s) {
        if (c == sep) {
            parts.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    parts.push_back(cur);
    return parts;
}

bool parseLong(const std::string &text, long long *out)
{
    std::string t = trim(text);
    if (t.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    long long v = std::strtoll(t.c_str(), &end, 10);
    if (errno != 0 || end == t.c_str() || *end != '\0')
        return false;
    *out = v;
    return true;
}

bool parseDouble(const std::string &text, double *out)
{
    std::string t = trim(text);
    if (t.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    double v = std::strtod(t.c_str(), &end);
    if (errno != 0 || end == t.c_str() || *end != '\0' || !std::isfinite(v))
        return false;
    *out = v;
    return true;
}

const std::string *lookup(const Env &env, const std::string &name)
{
    auto it = env.find(name);
    return it == env.end() ? nullptr : &it->second;
}

std::string nodeVar(int n, const char *suffix)
{
    return "VCAM_" + std::to_string(n) + "_" + suffix;
}

std::vector<Size> defaultSizes()
{
    return { { 3264, 2448 }, { 1920, 1080 }, { 1280, 720 }, { 640, 480 } };
}

// VCAM_<N>_FLASH=period_ms,duration_ms
void fillFlash(const Env &env, NodeSpec &node)
{
    const std::string *v = lookup(env, nodeVar(node.index, "FLASH"));
    if (!v)
        return;
    const std::vector<std::string> parts = split(*v, ',');
    long long period = 0, duration = 0;
    if (parts.size() == 2 && parseLong(trim(parts[0]), &period)
        && parseLong(trim(parts[1]), &duration) && period > 0 && duration > 0
        && duration < period) {
        node.flashPeriodMs = period;
        node.flashMs = duration;
    }
}

void fillCameraSettings(const Env &env, NodeSpec &node)
{
    const int n = node.index;

    std::vector<uint32_t> fourccs;
    if (const std::string *v = lookup(env, nodeVar(n, "FORMATS"))) {
        for (const std::string &part : split(*v, ',')) {
            uint32_t f = 0;
            bool dup = false;
            if (!parseFourcc(part, &f))
                continue;
            for (uint32_t g : fourccs)
                dup = dup || g == f;
            if (!dup)
                fourccs.push_back(f);
        }
    }
    if (fourccs.empty())
        fourccs = { V4L2_PIX_FMT_MJPEG, V4L2_PIX_FMT_YUYV };

    std::vector<Size> common;
    if (const std::string *v = lookup(env, nodeVar(n, "SIZES")))
        common = parseSizes(*v);
    if (common.empty())
        common = defaultSizes();

    for (uint32_t f : fourccs) {
        FormatSpec spec;
        spec.fourcc = f;
        const std::string var = nodeVar(n, "SIZES_") + fourccToString(f);
        if (const std::string *v = lookup(env, var))
            spec.sizes = parseSizes(*v);
        if (spec.sizes.empty())
            spec.sizes = common;
        node.formats.push_back(spec);
    }

    long long fps = 0;
    if (const std::string *v = lookup(env, nodeVar(n, "FPS")))
        if (parseLong(*v, &fps) && fps >= 1 && fps <= 1000)
            node.fps = static_cast<int>(fps);

    if (const std::string *v = lookup(env, nodeVar(n, "SCENE")))
        node.scene = parseScene(*v);
    else
        node.scene = defaultScene();
    if (const std::string *v = lookup(env, nodeVar(n, "TILT"))) {
        const std::string *f = lookup(env, nodeVar(n, "FOCAL"));
        parseTilt(*v, f ? *f : std::string(), &node.scene);
    }

    if (const std::string *v = lookup(env, nodeVar(n, "ENUMFMT_FAIL")))
        node.enumFmtFail = trim(*v) == "1";

    long long after = 0;
    if (const std::string *v = lookup(env, nodeVar(n, "UNPLUG_AFTER")))
        if (parseLong(*v, &after) && after >= 0)
            node.unplugAfter = after;

    long long value = 0;
    if (const std::string *v = lookup(env, nodeVar(n, "REPLUG_AFTER_MS")))
        if (parseLong(*v, &value) && value >= 0)
            node.replugAfterMs = value;
    if (const std::string *v = lookup(env, nodeVar(n, "UNPLUG_REPEAT")))
        node.unplugRepeat = trim(*v) == "1";
    if (const std::string *v = lookup(env, nodeVar(n, "STALL_AFTER")))
        if (parseLong(*v, &value) && value >= 0)
            node.stallAfter = value;
    if (const std::string *v = lookup(env, nodeVar(n, "STALL_MS")))
        if (parseLong(*v, &value) && value >= 0)
            node.stallMs = value;
    if (const std::string *v = lookup(env, nodeVar(n, "SCRIPT")))
        node.script = *v;
    if (const std::string *v = lookup(env, nodeVar(n, "SCRIPT_LOOP")))
        node.scriptLoop = trim(*v) == "1";
    if (const std::string *v = lookup(env, nodeVar(n, "SCRIPT_LOG")))
        node.scriptLog = trim(*v);
    if (const std::string *v = lookup(env, nodeVar(n, "FRAME_LOG")))
        node.frameLog = trim(*v);
}

} // namespace

Env readVcamEnvironment()
{
    Env env;
    for (char **e = environ; e && *e; ++e) {
        if (std::strncmp(*e, "VCAM_", 5) != 0)
            continue;
        const char *eq = std::strchr(*e, '=');
        if (!eq)
            continue;
        env.emplace(std::string(*e, static_cast<size_t>(eq - *e)), std::string(eq + 1));
    }
    return env;
}

bool parseFourcc(const std::string &text, uint32_t *fourcc)
{
    std::string t = trim(text);
    for (char &c : t)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (t == "MJPG" || t == "MJPEG") {
        *fourcc = V4L2_PIX_FMT_MJPEG;
        return true;
    }
    if (t == "YUYV" || t == "YUY2") {
        *fourcc = V4L2_PIX_FMT_YUYV;
        return true;
    }
    return false;
}

std::string fourccToString(uint32_t f)
{
    std::string s;
    for (int i = 0; i < 4; ++i)
        s += static_cast<char>((f >> (8 * i)) & 0xff);
    return s;
}

std::vector<Size> parseSizes(const std::string &text)
{
    std::vector<Size> sizes;
    for (const std::string &part : split(text, ',')) {
        std::string t = trim(part);
        size_t x = t.find_first_of("xX");
        if (x == std::string::npos)
            continue;
        long long w = 0, h = 0;
        if (!parseLong(t.substr(0, x), &w) || !parseLong(t.substr(x + 1), &h))
            continue;
        // Packed 4:2:2 needs an even width; real sensors never offer odd ones.
        if (w < 2 || h < 2 || w > 8192 || h > 8192 || (w % 2) != 0)
            continue;
        Size s{ static_cast<int>(w), static_cast<int>(h) };
        bool dup = false;
        for (const Size &o : sizes)
            dup = dup || o == s;
        if (!dup)
            sizes.push_back(s);
    }
    return sizes;
}

SceneSpec defaultScene()
{
    SceneSpec scene;
    scene.kind = SceneSpec::Sheets;
    scene.sheets.push_back(SheetSpec{ 0.5, 0.5, 0.55, 0.7, 0 });
    scene.key = "sheets:0.5,0.5,0.55,0.7,0;";
    return scene;
}

namespace {

// Fractions parsed from "name:v1,v2,..." when name matches and the count
// is one of those allowed.
bool deskPart(const std::string &part, const char *name, size_t least, size_t most,
              std::vector<double> *v)
{
    const std::string prefix = std::string(name) + ":";
    if (part.compare(0, prefix.size(), prefix) != 0)
        return false;
    v->clear();
    for (const std::string &f : split(part.substr(prefix.size()), ',')) {
        double d = 0;
        if (!parseDouble(f, &d))
            return false;
        v->push_back(d);
    }
    return v->size() >= least && v->size() <= most;
}

} // namespace

void parseDeskLook(const std::string &parts, SceneSpec *scene)
{
    DeskLookSpec &look = scene->look;
    std::ostringstream key;
    for (const std::string &one : split(parts, '|')) {
        const std::string p = trim(one);
        std::vector<double> v;
        if (p == "wood") {
            look.wood = true;
        } else if (deskPart(p, "desk", 1, 1, &v) && v[0] >= 1 && v[0] <= 255) {
            look.plainGrey = v[0];
        } else if (deskPart(p, "lamp", 1, 1, &v) && std::abs(v[0]) <= 100) {
            look.lamp = v[0];
        } else if (deskPart(p, "paper", 1, 2, &v) && v[0] >= 100 && v[0] <= 255
                   && (v.size() < 2 || v[1] >= 0)) {
            look.paperGrey = v[0];
            look.yellowing = v.size() > 1 ? v[1] : 0;
        } else if (deskPart(p, "shadow", 6, 40, &v) && v.size() % 2 == 0) {
            look.shadows.push_back(ShadowSpec{ v });
        } else if (deskPart(p, "pen", 4, 4, &v) || deskPart(p, "phone", 5, 5, &v)
                   || deskPart(p, "mug", 3, 3, &v)) {
            DeskObjectSpec o;
            o.kind = p[1] == 'e'  ? DeskObjectSpec::Pen
                    : p[1] == 'h' ? DeskObjectSpec::Phone
                                  : DeskObjectSpec::Mug;
            std::copy(v.begin(), v.end(), o.v);
            look.objects.push_back(o);
        } else {
            continue;
        }
        key << '|' << p;
    }
    scene->key += key.str();
}

SceneSpec parseScene(const std::string &text)
{
    // The desk's parts follow the main text after the first "|".
    const std::string whole = trim(text);
    const size_t bar = whole.find('|');
    if (bar != std::string::npos) {
        SceneSpec scene = parseScene(whole.substr(0, bar));
        parseDeskLook(whole.substr(bar + 1), &scene);
        return scene;
    }
    const std::string t = whole;
    SceneSpec scene;
    if (t == "desk") {
        scene.kind = SceneSpec::Desk;
        scene.key = "desk";
        return scene;
    }
    if (t.compare(0, 6, "image:") == 0 && t.size() > 6) {
        scene.kind = SceneSpec::Image;
        scene.imagePath = t.substr(6);
        scene.key = t;
        return scene;
    }
    if (t.compare(0, 7, "sheets:") == 0) {
        scene.kind = SceneSpec::Sheets;
        std::ostringstream key;
        key << "sheets:";
        for (const std::string &one : split(t.substr(7), ';')) {
            if (trim(one).empty())
                continue;
            std::vector<std::string> f = split(one, ',');
            if (f.size() != 5)
                continue;
            double v[5];
            bool ok = true;
            for (int i = 0; i < 5; ++i)
                ok = ok && parseDouble(f[i], &v[i]);
            if (!ok || v[2] <= 0 || v[3] <= 0)
                continue;
            SheetSpec s{ v[0], v[1], v[2], v[3], v[4] };
            scene.sheets.push_back(s);
            key << s.cx << ',' << s.cy << ',' << s.w << ',' << s.h << ',' << s.angle << ';';
        }
        if (!scene.sheets.empty()) {
            scene.key = key.str();
            return scene;
        }
    }
    if (t.compare(0, 6, "pages:") == 0 || t.compare(0, 6, "quads:") == 0) {
        const bool byCorners = t[0] == 'q';
        const size_t fields = byCorners ? 8 : 5;
        scene.kind = SceneSpec::Sheets;
        std::ostringstream key;
        key << t.substr(0, 6);
        for (const std::string &one : split(t.substr(6), ';')) {
            std::vector<std::string> f = split(one, ',');
            if (trim(one).empty() || f.size() != fields)
                continue;
            double v[8];
            bool ok = true;
            for (size_t i = 0; i < fields; ++i)
                ok = ok && parseDouble(f[i], &v[i]);
            if (!ok || (!byCorners && (v[2] <= 0 || v[3] <= 0)))
                continue;
            PageSpec page;
            page.byCorners = byCorners;
            if (byCorners)
                std::copy(v, v + 8, page.corners);
            else
                page.sheet = SheetSpec{ v[0], v[1], v[2], v[3], v[4] };
            scene.pages.push_back(page);
            for (size_t i = 0; i < fields; ++i)
                key << v[i] << (i + 1 < fields ? ',' : ';');
        }
        if (!scene.pages.empty()) {
            scene.key = key.str();
            return scene;
        }
    }
    // Unrecognised text: keep the documented default rather than failing.
    return defaultScene();
}

bool parseTilt(const std::string &tilt, const std::string &focal, SceneSpec *scene)
{
    double x = 0, y = 0, f = scene->focal;
    for (const std::string &part : split(tilt, ',')) {
        const std::string p = trim(part);
        double v = 0;
        if (p.size() < 3 || p[1] != ':' || !parseDouble(p.substr(2), &v) || std::abs(v) >= 80)
            return false;
        if (p[0] == 'x')
            x = v;
        else if (p[0] == 'y')
            y = v;
        else
            return false;
    }
    if (!trim(focal).empty() && (!parseDouble(focal, &f) || f <= 0.05 || f > 100))
        return false;
    scene->tiltX = x;
    scene->tiltY = y;
    scene->focal = f;
    std::ostringstream key;
    key << "|tilt:" << x << ',' << y << ',' << f;
    scene->key += key.str();
    return true;
}

Config parseConfig(const Env &env)
{
    Config cfg;
    if (const std::string *v = lookup(env, "VCAM_STATE_DIR"))
        cfg.stateDir = *v;
    if (const std::string *v = lookup(env, "VCAM_TRACE"))
        cfg.trace = trim(*v) == "1";

    std::vector<std::pair<int, NodeKind>> layout;
    if (const std::string *v = lookup(env, "VCAM_NODES")) {
        for (const std::string &part : split(*v, ',')) {
            std::string p = trim(part);
            size_t colon = p.find(':');
            if (colon == std::string::npos)
                continue;
            long long idx = 0;
            if (!parseLong(p.substr(0, colon), &idx) || idx < 0 || idx > 255)
                continue;
            std::string kind = trim(p.substr(colon + 1));
            NodeKind k;
            if (kind == "camera")
                k = NodeKind::Camera;
            else if (kind == "meta")
                k = NodeKind::Meta;
            else if (kind == "output")
                k = NodeKind::Output;
            else
                continue;
            layout.emplace_back(static_cast<int>(idx), k);
        }
    } else {
        long long cams = 1;
        if (const std::string *v = lookup(env, "VCAM_CAMERAS"))
            if (!parseLong(*v, &cams) || cams < 0)
                cams = 1;
        if (cams > 64)
            cams = 64;
        for (int k = 0; k < cams; ++k) {
            layout.emplace_back(2 * k, NodeKind::Camera);
            layout.emplace_back(2 * k + 1, NodeKind::Meta);
        }
    }

    for (const auto &entry : layout) {
        NodeSpec node;
        node.index = entry.first;
        node.kind = entry.second;
        cfg.nodes[node.index] = node; // a later duplicate wins
    }

    int port = 0;
    int lastCamera = -1;
    for (auto &kv : cfg.nodes) {
        NodeSpec &node = kv.second;
        const std::string *card = lookup(env, nodeVar(node.index, "CARD"));
        switch (node.kind) {
        case NodeKind::Camera:
            node.cameraIndex = node.index;
            node.usbPort = ++port;
            node.card = card ? *card : "Virtual Document Camera " + std::to_string(node.index);
            fillCameraSettings(env, node);
            fillFlash(env, node);
            lastCamera = node.index;
            break;
        case NodeKind::Meta:
            // A metadata node is the second interface of the camera before it.
            node.cameraIndex = lastCamera;
            if (lastCamera >= 0) {
                const NodeSpec &cam = cfg.nodes[lastCamera];
                node.usbPort = cam.usbPort;
                node.card = cam.card;
            } else {
                node.usbPort = ++port;
                node.card = card ? *card : "Virtual Document Camera " + std::to_string(node.index);
            }
            break;
        case NodeKind::Output:
            node.usbPort = 0;
            node.card = card ? *card : "Virtual Output " + std::to_string(node.index);
            break;
        }
    }
    return cfg;
}

} // namespace vcam
