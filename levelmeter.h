#ifndef LEVELMETER_H
#define LEVELMETER_H

#include <QWidget>

#include <functional>

class QTimer;

// A small bar beside the recording caption showing the microphone's level
// while a recording with sound runs. The bar follows decibels, so a quiet
// room shows a sliver and speech fills most of it.
class LevelMeter : public QWidget
{
    Q_OBJECT

public:
    explicit LevelMeter(QWidget *parent = nullptr);

    // Shows the meter and reads the level (0 to 1) from source until stop().
    void follow(std::function<float()> source);
    void stop();

    // The filled share of the bar, 0 to 100.
    int shownPercent() const { return percent; }

    // The share of the bar a level fills: -60 dB and below is empty, full
    // scale is full.
    static int percentFor(float level);

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    void refresh();

    std::function<float()> source;
    QTimer *timer;
    int percent = 0;
};

#endif // LEVELMETER_H
