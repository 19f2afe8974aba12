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

// The quarter turns after a turn button: direction 1 turns a quarter
// clockwise, -1 a quarter back, 0 half round; any other direction leaves
// the turns as they are. Starting from 0 to 3, the result is 0 to 3.
constexpr int quarterTurnsAfter(int quarterTurns, int direction)
{
    int value = quarterTurns;
    if (direction == 0)
        value += 2;
    else if (direction == 1 || direction == -1)
        value += direction;
    else
        return quarterTurns;
    if (value == 4)
        value = 0;
    else if (value == 5)
        value = 1;
    else if (value == -1)
        value = 3;
    return value;
}

#endif // MODECODES_H
