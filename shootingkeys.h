#ifndef SHOOTINGKEYS_H
#define SHOOTINGKEYS_H

#include <QObject>

#include <functional>

class QWidget;

// The shooting keys of a window, for an operator whose hands are on the
// paper (or whose foot pedal sends a key): Space takes a photo, F5 starts or
// stops the series. They work whatever control of the window has focus, so
// a focused button never takes Space for a click of its own, and do nothing
// while blocked() says a dialog is open.
class ShootingKeys : public QObject
{
    Q_OBJECT

public:
    ShootingKeys(QWidget *window, std::function<bool()> blocked);
    ~ShootingKeys() override;

    static constexpr int photoKey = Qt::Key_Space;
    static constexpr int seriesKey = Qt::Key_F5;

signals:
    void photoPressed();
    void seriesPressed();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    QWidget *window_;
    std::function<bool()> blocked_;
};

#endif // SHOOTINGKEYS_H
