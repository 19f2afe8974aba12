#ifndef MODECODES_H
#define MODECODES_H

// The codes the windows, the capture thread and the settings exchange as
// plain ints (the thread keeps them in atomics), named once.

// Sheet correction: what is searched for and cut out.
namespace Correction {
constexpr int None = 0; // the whole frame
constexpr int Single = 1; // the largest sheet
constexpr int Several = 2; // every sheet, each to a file of its own
constexpr int Custom = 3; // never sent by the window; finds nothing
} // namespace Correction

// Shooting type: the colours of the preview and the photo.
namespace Shooting {
constexpr int Colour = 0;
constexpr int Grey = 1;
constexpr int BlackAndWhite = 2;
constexpr int WhiteBackground = 3; // colour with the light background made white
} // namespace Shooting

// The exposure value that means "let the camera decide".
constexpr int automaticExposure = -100;

// Who reports a list of files: the capture engine (photos and recordings)
// or a composition dialog (a joined image, a PDF or TIFF).
namespace ResultKind {
constexpr int FromCamera = 0;
constexpr int FromDialog = 1;
} // namespace ResultKind

// Every code but grey, black and white and white background shows the
// frame's own colours.
constexpr bool isColourOnly(int shooting)
{
    return shooting < Shooting::Grey || shooting > Shooting::WhiteBackground;
}

// One or three quarter turns exchange the picture's width and height.
constexpr bool isSidewaysTurn(int quarterTurns)
{
    return quarterTurns == 1 || quarterTurns == 3;
}

#endif // MODECODES_H
