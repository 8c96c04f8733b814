#pragma once

#include <filesystem>
#include <vector>

#include "Report.h"
#include "Service.h"

namespace ParvaneBench {

// Each measures in rounds, the service and its yardsticks in turn, and gives lines of the table.
// All throw std::runtime_error when something cannot be measured.

/** Requests one at a time: the service next to the echoes, a message bus and a broker. */
std::vector<Row> MeasureRoundTrips(const Setting &setting);

/** 64 requests at a time. */
std::vector<Row> MeasureManyInFlight(const Setting &setting);

/** What a request allocates, and whether anything stays. */
std::vector<Row> MeasureAllocations(const Setting &setting);

/** A step update until it is stored and in the host's hands. */
std::vector<Row> MeasureDurableUpdate(const Setting &setting);

/** Memory after traffic. */
std::vector<Row> MeasureMemory(const Setting &setting);

/** From exec to the first answer. */
std::vector<Row> MeasureStart(const Setting &setting);

/** How often an idle service wakes up. */
std::vector<Row> MeasureWakeUps(const Setting &setting);

/** A week of readings at speed. */
std::vector<Row> MeasureWeek(const Setting &setting);

/** Many services, and one thread with all of their phone's sides. */
std::vector<Row> MeasureFleet(const Setting &setting);

/** The gateway's round trips, next to a bare server of its library. */
std::vector<Row> MeasureGatewayTrips(const Setting &setting);

/** What the gateway keeps, and how often it wakes up. */
std::vector<Row> MeasureGatewayFootprint(const Setting &setting);

/** The size of a stripped executable; empty path: there is none. */
Row MeasureSize(const std::filesystem::path &executable);

} // namespace ParvaneBench
