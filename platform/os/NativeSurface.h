#pragma once

#include <QRect>
#include <QWindow>

#include <memory>

namespace os {

// A native child window inside a top-level window, for a library that draws
// by itself into a window handle. It follows a rectangle given in the scene's
// device-independent units, scaled to physical pixels, and owns its handle:
// the window goes when the object goes.
class NativeSurface
{
public:
    // `parent` is the native handle of the top-level window. On a platform
    // without native child windows the surface stays invalid.
    explicit NativeSurface(WId parent);
    ~NativeSurface();
    NativeSurface(const NativeSurface &) = delete;
    NativeSurface &operator=(const NativeSurface &) = delete;

    bool isValid() const;
    WId handle() const;

    // Stacking: -1 keeps the order among siblings, 0 sends the surface to the
    // bottom, anything else to the top.
    void setGeometry(const QRect &rect, qreal devicePixelRatio, int stackMode);

    // The rectangle as the window system holds it, in physical pixels relative
    // to the parent; empty when it cannot be asked.
    QRect nativeGeometry() const;

    struct Native;

private:
    std::unique_ptr<Native> native;
};

// Each of x, y, width and height multiplied by the scale as a 32-bit float and
// truncated.
QRect scaledRect(const QRect &rect, qreal scale);

// Whether the screen that shows `window` runs in HDR mode. Only Windows can
// tell; elsewhere the answer is false.
bool isHdrActive(WId window);

} // namespace os
