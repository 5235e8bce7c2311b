/* Output of tbdlctl: aligned tables and key/value blocks for people, JSON
 * objects of the same data for scripts. */
#ifndef TBDLCTL_OUTPUT_H
#define TBDLCTL_OUTPUT_H

#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tbdl_client.h"

namespace tbdlctl {

using tbdl::client::BndCounts;
using tbdl::client::BndDetail;
using tbdl::client::DebugSwitch;
using tbdl::client::Limits;
using tbdl::client::Message;

/* Columns padded to the widest cell, two spaces apart. */
class Table {
public:
    explicit Table(std::vector<std::string> header) { m_rows.push_back(std::move(header)); }
    void add(std::vector<std::string> row) { m_rows.push_back(std::move(row)); }
    void print(std::ostream &out, const std::string &indent = "") const;

private:
    std::vector<std::vector<std::string>> m_rows;
};

nlohmann::json ResultJson(std::uint32_t uiResult);
nlohmann::json BundleJson(const BndDetail &d);
nlohmann::json CountsJson(const BndCounts &c);
nlohmann::json DebugJson(const DebugSwitch &d);
nlohmann::json LimitsJson(const Limits &l);
nlohmann::json MessageJson(const Message &m);

void PrintBundle(std::ostream &out, const BndDetail &d);
void PrintBundles(std::ostream &out, const std::vector<BndDetail> &bundles);
void PrintCounts(std::ostream &out, const BndCounts &c);
void PrintDebug(std::ostream &out, const DebugSwitch &d);
void PrintLimits(std::ostream &out, const Limits &l);
void PrintMessage(std::ostream &out, const Message &m);

}  // namespace tbdlctl

#endif
