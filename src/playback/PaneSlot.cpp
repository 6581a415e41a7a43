#include "playback/PaneSlot.h"

#include "playback/MPVObject.h"

PaneSlot::~PaneSlot()
{
    attach(nullptr);
}

void PaneSlot::attach(MPVObject *newPane)
{
    MPVObject *old = nullptr;
    {
        const std::lock_guard lock(mutex);
        if (pane == newPane)
            return;
        old = pane;
        pane = newPane;
    }
    if (old)
        old->removeOwner(this);
    if (newPane)
        newPane->addOwner(this);
}

const MPVObject *PaneSlot::held() const
{
    const std::lock_guard lock(mutex);
    return pane;
}

void PaneSlot::release()
{
    const std::lock_guard lock(mutex);
    pane = nullptr;
}
