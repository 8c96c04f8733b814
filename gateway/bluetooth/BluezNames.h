#pragma once

namespace ParvaneGateway::Bluez {

// The names by which BlueZ calls things.
constexpr char kName[] = "org.bluez";
constexpr char kRoot[] = "/org/bluez";
constexpr char kAdapter[] = "org.bluez.Adapter1";
constexpr char kDevice[] = "org.bluez.Device1";
constexpr char kGattManager[] = "org.bluez.GattManager1";
constexpr char kAdvertisingManager[] = "org.bluez.LEAdvertisingManager1";
constexpr char kAgentManager[] = "org.bluez.AgentManager1";
constexpr char kAgent[] = "org.bluez.Agent1";
constexpr char kService[] = "org.bluez.GattService1";
constexpr char kCharacteristic[] = "org.bluez.GattCharacteristic1";
constexpr char kAdvertisement[] = "org.bluez.LEAdvertisement1";
constexpr char kObjectManager[] = "org.freedesktop.DBus.ObjectManager";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";

// Its errors.
constexpr char kFailed[] = "org.bluez.Error.Failed";
constexpr char kAlreadyExists[] = "org.bluez.Error.AlreadyExists";
constexpr char kInvalidOffset[] = "org.bluez.Error.InvalidOffset";
constexpr char kInvalidLength[] = "org.bluez.Error.InvalidValueLength";
constexpr char kNotSupported[] = "org.bluez.Error.NotSupported";
constexpr char kRejected[] = "org.bluez.Error.Rejected";

} // namespace ParvaneGateway::Bluez
