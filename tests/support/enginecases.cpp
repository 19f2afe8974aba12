#include "enginecases.h"

#include "modecodes.h"

void EngineCases::init()
{
    ip.setCameraCorrection(Correction::None);
    ip.setCameraShootType(Shooting::Colour);
    ip.angle = 0;
}
