/* chassisctl's text output: each command's JSON answer shown for people. */
#ifndef TBDL_CHASSISCTL_H
#define TBDL_CHASSISCTL_H

#include <string>

#include <nlohmann/json.hpp>

namespace chassisctl {

using Json = nlohmann::json;

void PrintStatusText(const Json &status);
void PrintIfText(const Json &reply);
void PrintVrfText(const Json &reply);
void PrintKtbdlText(const Json &reply);
void PrintLsmText(const Json &reply);
void PrintPsText(const Json &reply);
void PrintHaText(const Json &reply);
/* The steps of a switchover or failover, each with its time. */
void PrintStepsText(const std::string &what, const Json &steps);
void PrintFailText(const Json &reply);
void PrintSvcPortText(const Json &reply);

/* "dump db": what a stored record of the daemon holds, null for others. */
Json ReadStoredRecord(const std::string &db, const std::string &key, const std::string &rec);

int Main(int argc, char **argv);

} // namespace chassisctl

#endif
