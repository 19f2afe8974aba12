// Configuration of the virtual cameras, parsed from VCAM_* environment
// variables. Pure data and parsing; no V4L2 behaviour lives here.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vcam {

struct Size
{
    int width = 0;
    int height = 0;
    bool operator==(const Size &o) const { return width == o.width && height == o.height; }
};

struct FormatSpec
{
    uint32_t fourcc = 0;
    std::vector<Size> sizes; // enumeration order
};

struct SheetSpec
{
    double cx = 0.5, cy = 0.5; // centre, fractions of frame width / height
    double w = 0.55, h = 0.7; // size, fractions of frame width / height
    double angle = 0; // degrees, clockwise on screen
};

// A sheet printed with straight lines along its edges, a cross and text,
// for measuring how flat a cut-out comes out: given like a plain sheet, or
// by its four corners (top-left, top-right, bottom-right, bottom-left of
// the print, fractions of the frame's width and height).
struct PageSpec
{
    bool byCorners = false;
    SheetSpec sheet;
    double corners[8] = {};
};

// What a real desk adds to a scene: its surface, the things lying on it,
// the paper's own tone and the light falling on all of it. Given after the
// scene's main text as "|"-separated parts (see the README).
struct DeskObjectSpec
{
    enum Kind { Pen, Phone, Mug };
    Kind kind = Pen;
    double v[5] = {}; // pen: cx,cy,length,angle; phone: cx,cy,w,h,angle; mug: cx,cy,r
};

struct ShadowSpec
{
    std::vector<double> polygon; // x1,y1,x2,y2,... fractions of the frame
};

struct DeskLookSpec
{
    bool wood = false; // a light wooden desk instead of the dark one
    double plainGrey = 0; // else, when not 0: a plain grey desk of this grey
    double lamp = 0; // grey levels the lamp adds top-left and takes bottom-right
    double paperGrey = 0; // 0: the usual paper; else its grey level
    double yellowing = 0; // grey levels of blue the yellowed paper lacks
    std::vector<DeskObjectSpec> objects; // drawn on the desk, under the sheets
    std::vector<ShadowSpec> shadows; // over everything
};

struct SceneSpec
{
    enum Kind { Sheets, Image, Desk };
    Kind kind = Sheets;
    std::vector<SheetSpec> sheets;
    std::vector<PageSpec> pages; // drawn over the sheets
    // The camera tilted by these angles (degrees) about the scene's
    // horizontal and vertical axes through its centre; focal length in frame
    // widths.
    double tiltX = 0, tiltY = 0, focal = 1.0;
    DeskLookSpec look;
    std::string imagePath;
    std::string key; // canonical text, identifies the scene in caches
};

enum class NodeKind { Camera, Meta, Output };

struct NodeSpec
{
    int index = 0; // N of /dev/videoN
    NodeKind kind = NodeKind::Camera;
    int cameraIndex = -1; // camera node this node belongs to (itself for cameras)
    int usbPort = 1; // last component of bus_info
    std::string card;
    // Capture settings, meaningful for cameras.
    std::vector<FormatSpec> formats;
    int fps = 30;
    SceneSpec scene;
    bool enumFmtFail = false;
    long long unplugAfter = -1; // frames; -1 = never
    // White frames while the monotonic clock, in ms, modulo flashPeriodMs
    // is below flashMs (a test's sync marks); 0 = never.
    long long flashPeriodMs = 0;
    long long flashMs = 0;
    long long replugAfterMs = -1; // back this long after an unplug; -1 = never
    bool unplugRepeat =
            false; // a camera plugged back in is unplugged again after unplugAfter frames
    long long stallAfter = -1; // frames before the stream stalls; -1 = never
    long long stallMs = -1; // how long a stall lasts; -1 = for good
    // Scripted scene (VCAM_<N>_SCRIPT), played once or in a loop, with the
    // times its steps were first shown appended to scriptLog.
    std::string script;
    bool scriptLoop = false;
    std::string scriptLog;
    // File to which a line per delivered frame is appended: its sequence
    // number, its size in bytes and the CRC-32 of those bytes.
    std::string frameLog;
};

struct Config
{
    std::map<int, NodeSpec> nodes;
    std::string stateDir;
    bool trace = false;
};

using Env = std::map<std::string, std::string>;

// All VCAM_* variables of the process environment.
Env readVcamEnvironment();

// Builds the device layout from the variables. Never fails: malformed
// values fall back to defaults.
Config parseConfig(const Env &env);

// Parsers, exposed for reuse.
bool parseFourcc(const std::string &text, uint32_t *fourcc);
std::string fourccToString(uint32_t fourcc);
std::vector<Size> parseSizes(const std::string &text);
SceneSpec parseScene(const std::string &text);
SceneSpec defaultScene();
// The "|"-separated desk parts after a scene's main text ("wood", "desk:G",
// "lamp:30", "shadow:...", "pen:...", "phone:...", "mug:...", "paper:..."),
// appended to scene's key. Malformed parts are left out.
void parseDeskLook(const std::string &parts, SceneSpec *scene);
// "x:20", "y:-10", "x:20,y:10" (degrees), and the focal length ("" keeps
// the default), into scene (and its key). False, scene untouched, when
// malformed.
bool parseTilt(const std::string &tilt, const std::string &focal, SceneSpec *scene);

} // namespace vcam
