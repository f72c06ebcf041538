// SPDX-License-Identifier: MIT
#include "state/device_info.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/paths.h"
#include "state/device_record.h"
#include "state/setting_file.h"
#include "state/system_env.h"

#include <cstdio>

namespace
{

constexpr char kUnit[] = "src/search_services.c";

} // namespace

std::string getID()
{
    return ReadFileStart(paths::kDeviceId, wire::kDeviceIdSize - 1).value_or("");
}

void getVersionNO(std::int32_t *plexa, std::int32_t *fpga)
{
    *fpga = 0;
    const auto image = ReadFileStart(paths::kFpgaImage, 8);
    if (!image)
        Diag(kUnit, __func__, __LINE__, "open fpag file fail.");
    else if (image->size() < 8)
        Diag(kUnit, __func__, __LINE__, "read fpag file fail.");
    else
        *fpga = GetFPGAVersionNo();
    *plexa = GetPlexaVersionNo();
}

void getScreenSize(int *width, int *height)
{
    const ScreenSize size = ReadBootScreen().value_or(BootScreen{}).size.value_or(kDefaultScreenSize);
    *width = static_cast<int>(size.width);
    *height = static_cast<int>(size.height);
    std::printf("get screen size: (%d, %d)\n", *width, *height);
}

std::string getDeviceName()
{
    const std::string name = ReadFileStart(paths::kDeviceName, 249).value_or("");
    return name.empty() ? "Controller" : name;
}

int getModelType()
{
    int type = 1;
    const FilePointer file = OpenFile(paths::kBootSetting, "rb");
    if (!file)
        return type;
    while (const auto record = ReadSetting(file.get())) {
        if (record->id == wire::kIdModelType)
            type = record->value == 0 ? 1 : 0;
    }
    return type;
}

int getBootScreenFlag()
{
    return OpenFile(paths::kBootScreen, "rb") ? 1 : 0;
}

void InitDeviceInfo()
{
    g_device.setID(getID().c_str());
    std::int32_t plexa = 0;
    std::int32_t fpga = 0;
    getVersionNO(&plexa, &fpga);
    g_device.setVersionNO(plexa, fpga);
    int width = 0;
    int height = 0;
    getScreenSize(&width, &height);
    g_device.setScreenSize(width, height);
    g_device.setDeviceName(getDeviceName().c_str());
    g_device.setModelType(getModelType());
    g_device.setBootScreenFlag(getBootScreenFlag());
}
