#pragma once

namespace os {

// Whether the machine has a device that a hardware video decoder could run
// on. VA-API and the Mesa VDPAU drivers open a DRM render node; CUDA and
// NVIDIA's VDPAU driver open the NVIDIA control device. Without either, every
// hardware decoding API fails, and some of them say so on stderr by
// themselves. Looked up once per process.
class DecodeDevices
{
public:
    static bool present();
};

} // namespace os
