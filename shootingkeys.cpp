#include "shootingkeys.h"

#include <QApplication>
#include <QKeyEvent>
#include <QWidget>

ShootingKeys::ShootingKeys(QWidget *window, std::function<bool()> blocked)
    : QObject(window), window_(window), blocked_(std::move(blocked))
{
    // Seen before the focused control sees them.
    qApp->installEventFilter(this);
}

ShootingKeys::~ShootingKeys()
{
    qApp->removeEventFilter(this);
}

bool ShootingKeys::eventFilter(QObject *watched, QEvent *event)
{
    const QEvent::Type type = event->type();
    if (type != QEvent::KeyPress && type != QEvent::KeyRelease && type != QEvent::ShortcutOverride)
        return false;
    auto *widget = qobject_cast<QWidget *>(watched);
    if (!widget || widget->window() != window_)
        return false;
    auto *key = static_cast<QKeyEvent *>(event);
    if ((key->key() != photoKey && key->key() != seriesKey)
        || (key->modifiers() & ~Qt::KeypadModifier) != Qt::NoModifier)
        return false;
    if (type == QEvent::ShortcutOverride) {
        // Ours, not a shortcut of some control's.
        event->accept();
        return true;
    }
    // Both keys belong to the window alone: the press and its release never
    // reach the focused control. A held key takes one photo, not a burst.
    if (type == QEvent::KeyPress && !key->isAutoRepeat() && !(blocked_ && blocked_())) {
        if (key->key() == photoKey)
            emit photoPressed();
        else
            emit seriesPressed();
    }
    return true;
}
