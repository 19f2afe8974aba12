#ifndef RECONNECTION_H
#define RECONNECTION_H

#include <QElapsedTimer>

// When to try again a camera that went away (unplugged): about once a
// second, so that waiting for it costs next to nothing. Used by the
// capture loop only.
class Reconnection
{
public:
    static constexpr int retryMs = 1000;

    bool away() const { return isAway; }
    // The camera has gone: the first try comes one interval later.
    void lost();
    // Whether the camera is away and the next try is due.
    bool due() const;
    // A try that found nothing: the next one comes one interval later.
    void failed();
    // The camera is back, or was closed on request: nothing to wait for.
    void reset();

private:
    bool isAway = false;
    QElapsedTimer sinceTry;
};

#endif // RECONNECTION_H
