#pragma once

#include <mutex>

class MPVObject;

// A player's hold on one MPVObject that the QML scene owns. The scene may
// destroy the pane at any time, while the player's worker thread is about to
// call it; a QPointer or the destroyed signal would clear only after the mpv
// context is already gone. So the pane, before it tears anything down,
// releases every slot that holds it under that slot's lock, and every call
// through the slot runs under the same lock.
//
// Slots and panes are destroyed on the thread that owns the scene.
class PaneSlot
{
public:
    PaneSlot() = default;
    ~PaneSlot();
    PaneSlot(const PaneSlot &) = delete;
    PaneSlot &operator=(const PaneSlot &) = delete;

    // Holds `pane` (nullptr lets go of the one held).
    void attach(MPVObject *pane);

    // Runs `use` with the pane, which cannot be torn down meanwhile; false
    // when no pane is held.
    template<typename Use>
    bool use(Use &&use) const
    {
        const std::lock_guard lock(mutex);
        if (!pane)
            return false;
        use(*pane);
        return true;
    }

    // Which pane is held; only for comparing, never for calling.
    const MPVObject *held() const;
    explicit operator bool() const { return held() != nullptr; }

private:
    friend class MPVObject;
    // Called by the pane as its teardown starts.
    void release();

    // Recursive: a call through the slot may reach another call through it.
    mutable std::recursive_mutex mutex;
    MPVObject *pane = nullptr;
};
