#include "reconnection.h"

void Reconnection::lost()
{
    isAway = true;
    sinceTry.start();
}

bool Reconnection::due() const
{
    return isAway && sinceTry.isValid() && sinceTry.elapsed() >= retryMs;
}

void Reconnection::failed()
{
    sinceTry.start();
}

void Reconnection::reset()
{
    isAway = false;
    sinceTry.invalidate();
}
