/* Chassis settings record: validation, JSON form, file load and save. */
#include "settings.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

namespace tbdl::plat {

namespace {

using nlohmann::json;

bool ReadU32(const json &obj, const char *name, uint32_t &out, std::string &err)
{
    auto it = obj.find(name);
    if (it == obj.end()) {
        return true;
    }
    if (!it->is_number_unsigned() || it->get<uint64_t>() > UINT32_MAX) {
        err = std::string("\"") + name + "\" must be an unsigned 32-bit number";
        return false;
    }
    out = static_cast<uint32_t>(it->get<uint64_t>());
    return true;
}

bool ReadBool(const json &obj, const char *name, bool &out, std::string &err)
{
    auto it = obj.find(name);
    if (it == obj.end()) {
        return true;
    }
    if (!it->is_boolean()) {
        err = std::string("\"") + name + "\" must be true or false";
        return false;
    }
    out = it->get<bool>();
    return true;
}

bool ReadBoard(const json &value, const char *what, int &out, std::string &err)
{
    if (!value.is_number_unsigned() || value.get<uint64_t>() >= static_cast<uint64_t>(kMaxBoards)) {
        err = std::string("\"") + what + "\" must be a board number 0 or 1";
        return false;
    }
    out = static_cast<int>(value.get<uint64_t>());
    return true;
}

bool ReadModes(const json &obj, ChassisSettings &s, std::string &err)
{
    auto it = obj.find("modes");
    if (it == obj.end()) {
        return true;
    }
    if (!it->is_object()) {
        err = "\"modes\" must be an object";
        return false;
    }
    return ReadBool(*it, kModeLoadBalancing, s.modeLoadBalancing, err) &&
           ReadBool(*it, kModeOneToOne, s.modeOneToOne, err) &&
           ReadBool(*it, kModeOnePlusOne, s.modeOnePlusOne, err);
}

bool ReadBoards(const json &obj, ChassisSettings &s, std::string &err)
{
    auto it = obj.find("master_board");
    if (it != obj.end() && !ReadBoard(*it, "master_board", s.masterBoard, err)) {
        return false;
    }
    it = obj.find("boards");
    if (it == obj.end()) {
        return true;
    }
    if (!it->is_array()) {
        err = "\"boards\" must be an array of board numbers";
        return false;
    }
    std::vector<int> boards;
    for (const json &b : *it) {
        int board = 0;
        if (!ReadBoard(b, "boards", board, err)) {
            return false;
        }
        boards.push_back(board);
    }
    s.boards = std::move(boards);
    return true;
}

} // namespace

bool ValidateSettings(const ChassisSettings &s, std::string &err)
{
    if (s.bundleSlots == 0 || s.bundleSlots > kMaxBundleSlots) {
        err = "bundle_slots must be 1.." + std::to_string(kMaxBundleSlots);
        return false;
    }
    if (s.memberLimit > kMaxMemberLimit) {
        err = "member_limit must be 0.." + std::to_string(kMaxMemberLimit);
        return false;
    }
    if (s.haMtu < kMinHaMtu || s.haMtu > kMaxHaMtu) {
        err = "ha_mtu must be " + std::to_string(kMinHaMtu) + ".." + std::to_string(kMaxHaMtu);
        return false;
    }
    if (s.haResponseMs < kMinHaResponseMs || s.haResponseMs > kMaxHaResponseMs) {
        err = "ha_response_ms must be " + std::to_string(kMinHaResponseMs) + ".." + std::to_string(kMaxHaResponseMs);
        return false;
    }
    if (s.boards.empty() || s.boards.size() > static_cast<size_t>(kMaxBoards)) {
        err = "boards must list one or two boards";
        return false;
    }
    for (size_t i = 0; i < s.boards.size(); ++i) {
        if (s.boards[i] < 0 || s.boards[i] >= kMaxBoards) {
            err = "boards must be 0 or 1";
            return false;
        }
        if (std::count(s.boards.begin(), s.boards.end(), s.boards[i]) != 1) {
            err = "boards must not repeat a board";
            return false;
        }
    }
    if (std::find(s.boards.begin(), s.boards.end(), s.masterBoard) == s.boards.end()) {
        err = "master_board must be one of boards";
        return false;
    }
    return true;
}

std::string SettingsToJson(const ChassisSettings &s)
{
    json j = json::object();
    j["bundle_slots"] = s.bundleSlots;
    j["member_limit"] = s.memberLimit;
    j["modes"] = json::object({{kModeLoadBalancing, s.modeLoadBalancing},
                               {kModeOneToOne, s.modeOneToOne},
                               {kModeOnePlusOne, s.modeOnePlusOne}});
    j["ha_mtu"] = s.haMtu;
    j["ha_response_ms"] = s.haResponseMs;
    j["master_board"] = s.masterBoard;
    j["boards"] = s.boards;
    return j.dump();
}

bool SettingsFromJson(const std::string &text, ChassisSettings &settings, std::string &err)
{
    json j = json::parse(text, nullptr, false);
    if (j.is_discarded() || !j.is_object()) {
        err = "not a JSON object";
        return false;
    }
    ChassisSettings s; /* defaults for every missing key */
    if (!ReadU32(j, "bundle_slots", s.bundleSlots, err) || !ReadU32(j, "member_limit", s.memberLimit, err) ||
        !ReadModes(j, s, err) || !ReadU32(j, "ha_mtu", s.haMtu, err) ||
        !ReadU32(j, "ha_response_ms", s.haResponseMs, err) || !ReadBoards(j, s, err) ||
        !ValidateSettings(s, err)) {
        return false;
    }
    settings = std::move(s);
    return true;
}

bool LoadSettings(const std::string &path, ChassisSettings &settings, std::string &err)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        err = path + ": cannot open: " + std::strerror(errno);
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        err = path + ": read error";
        return false;
    }
    std::string why;
    if (!SettingsFromJson(text.str(), settings, why)) {
        err = path + ": " + why;
        return false;
    }
    return true;
}

bool SaveSettings(const std::string &path, const ChassisSettings &settings, std::string &err)
{
    std::string why;
    if (!ValidateSettings(settings, why)) {
        err = path + ": " + why;
        return false;
    }
    std::string text = SettingsToJson(settings) + "\n";
    std::string tmp = path + ".tmp." + std::to_string(getpid());
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        err = tmp + ": cannot create: " + std::strerror(errno);
        return false;
    }
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(fd) == 0;
    int savedErrno = errno;
    ok = (close(fd) == 0) && ok;
    if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
        err = path + ": cannot write: " + std::strerror(ok ? errno : savedErrno);
        unlink(tmp.c_str());
        return false;
    }
    return true;
}

} // namespace tbdl::plat
