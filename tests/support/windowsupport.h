#ifndef WINDOWSUPPORT_H
#define WINDOWSUPPORT_H

#include "testsupport.h"

#include <QString>

class MainWindowQCamera;
class QAbstractButton;
class QCameraView;

// Until the view shows its camera's first frame and no longer the opening
// tip; false when that has not happened within 30 s.
bool waitOpen(QCameraView *view);
// The same for the main window's preview.
bool waitOpen(MainWindowQCamera &w);

// Clicks on controls that the program refuses with a warning box each. The
// call clicks and waits up to 5 s for the boxes answered so far to reach
// `expected` (which it counts up); true when they have and the newest shows
// the text (and the title, when one is given).
class RefusedClick
{
public:
    RefusedClick(const ModalAnswerer &answerer, const QString &text,
                 const QString &title = QString());

    bool operator()(QAbstractButton *button);

    int expected = 0;

private:
    const ModalAnswerer &answerer;
    const QString text;
    const QString title;
};

#endif // WINDOWSUPPORT_H
