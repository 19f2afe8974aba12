#include "levelmeter.h"

#include <QPainter>
#include <QTimer>

#include <algorithm>
#include <cmath>

namespace {

constexpr int refreshMs = 50;
constexpr float floorDb = -60.0f;

} // namespace

LevelMeter::LevelMeter(QWidget *parent) : QWidget(parent), timer(new QTimer(this))
{
    setObjectName(QStringLiteral("levelMeter"));
    setFixedSize(sizeHint());
    connect(timer, &QTimer::timeout, this, &LevelMeter::refresh);
    hide();
}

QSize LevelMeter::sizeHint() const
{
    return QSize(120, 16);
}

int LevelMeter::percentFor(float level)
{
    if (!(level > 0.0f))
        return 0;
    const float db = 20.0f * std::log10(std::min(level, 1.0f));
    return int(std::lround(std::clamp((db - floorDb) / -floorDb, 0.0f, 1.0f) * 100.0f));
}

void LevelMeter::follow(std::function<float()> levelSource)
{
    source = std::move(levelSource);
    percent = 0;
    timer->start(refreshMs);
    show();
    update();
}

void LevelMeter::stop()
{
    timer->stop();
    source = nullptr;
    percent = 0;
    hide();
}

void LevelMeter::refresh()
{
    if (!source)
        return;
    const int now = percentFor(source());
    // Rises at once, falls gently, as level meters do.
    percent = now >= percent ? now : std::max(now, percent - 5);
    update();
}

void LevelMeter::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    const QRect frame = rect().adjusted(0, 0, -1, -1);
    painter.fillRect(frame, QColor(40, 40, 40));
    const int filled = (frame.width() - 1) * percent / 100;
    const QColor colour = percent > 90 ? QColor(220, 50, 40) : QColor(60, 190, 80);
    painter.fillRect(QRect(frame.left() + 1, frame.top() + 1, filled, frame.height() - 1), colour);
    painter.setPen(QColor(150, 150, 150));
    painter.drawRect(frame);
}
