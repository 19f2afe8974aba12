#ifndef ACTIVEBOX_H
#define ACTIVEBOX_H

#include <QString>
#include <QStringList>

#include <optional>

// What a warning box showed.
struct ShownBox
{
    QString title;
    QString text;
    QStringList buttons; // the buttons' texts, in the box's order
};

// The one way the tests answer warning boxes, in the test's own process and
// in the program that the tests start: when a message box is the active
// modal widget and on screen, presses its OK (or closes it when it has
// none) and gives what it showed; otherwise nothing.
std::optional<ShownBox> answerShownBox();

#endif // ACTIVEBOX_H
