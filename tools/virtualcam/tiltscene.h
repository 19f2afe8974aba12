// Printed pages and the tilted camera: the parts of the scene that let a
// test measure how flat a sheet comes out of a perspective cut-out. Pure
// drawing on cv::Mat, usable by tests that draw their own frames.
#pragma once

#include "config.h"

#include <opencv2/core.hpp>

#include <array>

namespace vcam {

// The corners of a page: top-left, top-right, bottom-right, bottom-left.
using PageCorners = std::array<cv::Point2d, 4>;

// Where the ruled frame of a page's print lies: its lines run along the
// edges this share of the page's width (height) in from them.
constexpr double kPageRuleInset = 0.08;

// Maps pixels of the flat scene to pixels of a frame of width x height
// seen by the camera tilted as the scene says: a camera at the focal
// length's distance from the scene's centre, turned about it, so that the
// centre stays in the middle of the frame. The identity when not tilted.
cv::Matx33d tiltHomography(const SceneSpec &scene, int width, int height);

// The page's corners in pixels of the flat scene of width x height.
PageCorners pageCorners(const PageSpec &page, int width, int height);

// corners mapped by h.
PageCorners mapCorners(const cv::Matx33d &h, const PageCorners &corners);

// The usual paper of sheets and pages (BGR).
const cv::Scalar kPaperColour(236, 240, 242);

// The paper of the scene's sheets and pages: the usual, or the grey and
// yellowing its desk parts give (BGR).
cv::Scalar paperColour(const SceneSpec &scene);

// The print of a page of the given size: paper with the ruled frame, a
// cross in its lower half and lines of text in its upper half; the margins
// outside the frame are blank paper.
cv::Mat pagePrint(cv::Size size, const cv::Scalar &paper = kPaperColour);

// The page printed between corners (frame pixels), anti-aliased at its
// edges.
void drawPage(cv::Mat &img, const PageCorners &corners, const cv::Scalar &paper = kPaperColour);

// The scene's pages drawn over img where the tilted camera sees them.
void printPages(cv::Mat &img, const SceneSpec &scene);

// The flat scene img seen by the tilted camera, then its pages printed.
void tiltAndPrint(cv::Mat &img, const SceneSpec &scene);

} // namespace vcam
