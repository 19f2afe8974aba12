// What a real desk adds to the scene: a light wooden surface with its
// grain, a pen, a phone and a mug's ring lying on it, paper that is not
// quite white, and a lamp's uneven light with shadows over everything.
// Pure drawing on cv::Mat, usable by tests that draw their own frames.
#pragma once

#include "config.h"

#include <opencv2/core.hpp>

namespace vcam {

// A light wooden desk: warm brown, grey about 171 to 201 in streaks of
// grain running across the frame with a gentle wave.
void fillWoodDesk(cv::Mat &img);

// A plain desk of the given grey, neutral, with a faint fine texture.
void fillPlainDesk(cv::Mat &img, double grey);

// The scene's pens, phones and mug rings, drawn on the desk.
void drawDeskObjects(cv::Mat &img, const SceneSpec &scene);

// The lamp's light, brighter top-left and darker bottom-right (the desk
// about the given grey levels up and down, everything else in proportion),
// and the shadows, each taking 45% of the light within its polygon with a
// soft edge.
void lightScene(cv::Mat &img, const SceneSpec &scene);

// The share of light the shadows leave at each pixel (CV_32F, 1 where no
// shadow falls), for tests that need to know where they lie.
cv::Mat shadowLight(const SceneSpec &scene, cv::Size size);

} // namespace vcam
