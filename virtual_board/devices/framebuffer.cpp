// SPDX-License-Identifier: MIT
#include "devices/framebuffer.h"

#include "inside/framebuffer_state.h"
#include "machine/inside_image.h"

#include <fmt/core.h>

#include <png.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace board
{

namespace
{

fb_bitfield Field(unsigned offset, unsigned length)
{
    return {offset, length, 0};
}

void Lay(BoardRoot &root, const inside::FramebufferPaths &paths, const ScreenMode &mode)
{
    inside::FramebufferState state{};
    fb_var_screeninfo &variable = state.variable;
    variable.xres = variable.xres_virtual = mode.width;
    variable.yres = mode.height;
    variable.yres_virtual = mode.height * 2; // room for a second page, as boards have it
    variable.bits_per_pixel = mode.bitsPerPixel;
    const bool small = mode.bitsPerPixel <= 16;
    const unsigned low = small ? 5 : 8;
    const unsigned high = small ? 11 : 16;
    variable.red = Field(mode.bgr ? 0 : high, low);
    variable.green = Field(low, small ? 6 : 8);
    variable.blue = Field(mode.bgr ? high : 0, low);
    std::strcpy(state.fixed.id, "panel");
    state.fixed.line_length = mode.width * mode.bitsPerPixel / 8 + mode.padding;
    state.fixed.smem_len = (mode.width * 4 + mode.padding) * variable.yres_virtual;
    state.padding = mode.padding;
    state.fixed.visual = FB_VISUAL_TRUECOLOR;
    state.refuses32 = mode.refuses32 ? 1 : 0;
    state.refuses16 = mode.refuses16 ? 1 : 0;
    root.Write(paths.state, std::string(reinterpret_cast<const char *>(&state), sizeof state));
    root.Write(paths.device, std::string(state.fixed.smem_len, '\0'), 0660);
}

} // namespace

void MakeFramebuffers(BoardRoot &root, const std::vector<ScreenMode> &modes)
{
    if (modes.size() > std::size(inside::kFramebuffers))
        throw std::runtime_error("virtual board: it has three screens at most");
    for (std::size_t index = 0; index < modes.size(); ++index)
        Lay(root, inside::kFramebuffers[index], modes[index]);
    if (!modes.empty())
        root.Write(kShimPath, std::string(FramebufferShimImage()), 0755);
}

std::optional<ScreenPicture> ReadFramebuffer(const BoardRoot &root, unsigned device)
{
    if (device >= std::size(inside::kFramebuffers))
        return std::nullopt;
    const inside::FramebufferPaths &paths = inside::kFramebuffers[device];
    const auto mode = root.TryRead(paths.state);
    auto bytes = root.TryRead(paths.device);
    inside::FramebufferState state;
    if (!mode || !bytes || mode->size() != sizeof state)
        return std::nullopt;
    std::memcpy(&state, mode->data(), sizeof state);
    const fb_var_screeninfo &variable = state.variable;
    bytes->resize(std::size_t{state.fixed.line_length} * variable.yres);
    return ScreenPicture{variable.xres,           variable.yres,       variable.bits_per_pixel,
                         state.fixed.line_length, std::move(*bytes),   variable.red.offset,
                         variable.green.offset,   variable.blue.offset};
}

std::uint32_t ScreenPicture::Pixel(unsigned x, unsigned y) const
{
    const unsigned size = bitsPerPixel / 8;
    std::uint32_t raw = 0;
    std::memcpy(&raw, bytes.data() + std::size_t{y} * lineLength + std::size_t{x} * size, size);
    if (bitsPerPixel < 16)
        return raw * 0x010101;
    const auto colour = [&](unsigned offset, bool green) {
        if (bitsPerPixel > 16)
            return raw >> offset & 0xFF;
        const unsigned most = green ? 63 : 31;
        return (raw >> offset & most) * 255 / most;
    };
    return colour(redOffset, false) << 16 | colour(greenOffset, true) << 8 | colour(blueOffset, false);
}

std::string ScreenPicture::Png() const
{
    std::string colours;
    for (unsigned y = 0; y < height; ++y) {
        for (unsigned x = 0; x < width; ++x) {
            const std::uint32_t pixel = Pixel(x, y);
            for (const unsigned shift : {16U, 8U, 0U})
                colours += static_cast<char>(pixel >> shift & 0xFF);
        }
    }
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = width;
    image.height = height;
    image.format = PNG_FORMAT_RGB;
    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(image);
    std::string file(size, '\0');
    if (png_image_write_to_memory(&image, file.data(), &size, 0, colours.data(), 0, nullptr) == 0)
        throw std::runtime_error(fmt::format("virtual board: screenshot: {}", image.message));
    file.resize(size);
    return file;
}

} // namespace board
