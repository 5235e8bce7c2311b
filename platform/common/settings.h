/* Chassis settings: the record chassisd decides at start and writes to
 * DIR/chassis.json, and that the platform library reads back to answer the
 * daemon's capability queries (bundle slots, member limit, mode options,
 * HA MTU).
 *
 * JSON form (every key optional; a missing key keeps its default):
 *   {"bundle_slots":1024,"member_limit":8,
 *    "modes":{"LoadBalancing":true,"ProtectionOnetoone":true,
 *             "ProtectionOneplusone":true},
 *    "ha_mtu":1400,"ha_response_ms":2000,"master_board":0,"boards":[0,1]}
 * ha_response_ms: how long the HA service waits for a daemon's response
 * to an event of a switchover or failover before it goes on without it.
 * A key present with the wrong type or an out-of-range value is an error. */
#ifndef TBDL_PLAT_SETTINGS_H
#define TBDL_PLAT_SETTINGS_H

#include <cstdint>
#include <string>
#include <vector>

namespace tbdl::plat {

/* Names of the three work-mode options as the option reader knows them. */
inline constexpr const char *kModeLoadBalancing = "LoadBalancing";
inline constexpr const char *kModeOneToOne = "ProtectionOnetoone";
inline constexpr const char *kModeOnePlusOne = "ProtectionOneplusone";

/* Limits of the values a settings record may hold. */
inline constexpr uint32_t kMaxBundleSlots = 1u << 20;
inline constexpr uint32_t kMaxMemberLimit = 255; /* one byte in the LFIB record */
inline constexpr uint32_t kMinHaMtu = 64;
inline constexpr uint32_t kMaxHaMtu = 65535; /* HA message lengths are u16 */
inline constexpr int kMaxBoards = 2;         /* boards 0 and 1 */
inline constexpr uint32_t kMinHaResponseMs = 10;
inline constexpr uint32_t kMaxHaResponseMs = 600000;

struct ChassisSettings {
    uint32_t bundleSlots = 1024;
    uint32_t memberLimit = 8;
    bool modeLoadBalancing = true;
    bool modeOneToOne = true;
    bool modeOnePlusOne = true;
    uint32_t haMtu = 1400;
    uint32_t haResponseMs = 2000;
    int masterBoard = 0;
    std::vector<int> boards{0, 1};

    bool operator==(const ChassisSettings &) const = default;
};

/* Checks ranges and consistency (boards 0/1, no duplicates, not empty, the
 * master among them). true when valid; otherwise err says what is wrong. */
bool ValidateSettings(const ChassisSettings &settings, std::string &err);

/* JSON text of a settings record (one line, keys as above). */
std::string SettingsToJson(const ChassisSettings &settings);

/* Parses JSON text into settings: starts from the defaults, overrides what
 * the text holds, validates. On failure settings is left unchanged. */
bool SettingsFromJson(const std::string &text, ChassisSettings &settings, std::string &err);

/* Reads and parses a settings file. On failure (missing, unreadable,
 * malformed, invalid) settings is left unchanged and err names the file
 * and the reason. */
bool LoadSettings(const std::string &path, ChassisSettings &settings, std::string &err);

/* Validates and writes the settings to path atomically (temporary file in
 * the same directory, then rename), so a reader never sees half a file. */
bool SaveSettings(const std::string &path, const ChassisSettings &settings, std::string &err);

} // namespace tbdl::plat

#endif
