// SPDX-License-Identifier: MIT
// src/base/paths.h: the absolute paths that the daemon uses. A shell command that is fixed word for word
// contains its paths as text instead.
#pragma once

namespace paths
{

constexpr char kSerialDevice[] = "/dev/ttyO0"; // the line to the FPGA
constexpr char kModemDevice[] = "/dev/ttyUSB3";
constexpr char kEth0Carrier[] = "/sys/class/net/eth0/carrier"; // "1" with a carrier
constexpr char kPanel[] = "/dev/fb0";
constexpr char kSecondPanel[] = "/dev/fb1";
constexpr char kThirdPanel[] = "/dev/fb2";

constexpr char kPlexaData[] = "/home/root/plexa_data";
constexpr char kServerConfig[] = "/home/root/plexa_data/server_config";
constexpr char kServerConfigTemporary[] = "/home/root/plexa_data/server_config_tmp";
constexpr char kRemoteServer[] = "/home/root/plexa_data/remote_server";
constexpr char kRebootPloy[] = "/home/root/plexa_data/reboot_ploy";
constexpr char kSms[] = "/home/root/plexa_data/sms";
constexpr char kSetting[] = "/home/root/plexa_data/setting.ss"; // the one that clients read and write
constexpr char kPlayerSetting[] = "/home/root/setting.ss";      // written by the player
constexpr char kStagedSetting[] = "setting.ss.bak";             // relative to where the daemon was started
constexpr char kSerialIni[] = "/home/root/plexa/serial.ini";
constexpr char kLuminanceFile[] = "/home/root/plexa_data/luminance_file";
constexpr char kUsbLuminanceFile[] = "/home/root/usb_dev/tarvo/luminance_file";
constexpr char kPlexaVersion[] = "/home/root/plexa/version";

constexpr char kUsbDisk[] = "/home/root/usb_dev";
constexpr char kUsbProgram[] = "/home/root/usb_dev/tarvo";
constexpr char kInternalProgram[] = "/home/root/plexa_data/factory";

constexpr char kBootSetting[] = "/boot/setting.ss"; // what the board starts with
constexpr char kFpgaImage[] = "/boot/fpga.img";
constexpr char kBootScreen[] = "/boot/disp.bin";

constexpr char kDeviceId[] = "/usr/share/id/config";
constexpr char kDeviceName[] = "/usr/share/id/name";

constexpr char kFirmware[] = "/tmp/QV_Firmware";
constexpr char kTemporary[] = "/home/root/temp";
constexpr char kInfo[] = "/usr/share/info";
constexpr char kUpgradeState[] = "/usr/share/info/server_upgrade_state"; // exists after a failed upgrade

constexpr char kModemPeer[] = "/etc/ppp/peers/3g"; // how pppd dials

constexpr char kInterfaces[] = "/etc/network/interfaces";
constexpr char kInterfacesDynamic[] = "/etc/network/interfaces_dynamic";
constexpr char kInterfacesStatic[] = "/etc/network/interfaces_static";

} // namespace paths
