// What may happen to a set, and the sets it happens to.
#ifndef TESTS_PROOF_MODEL_EVENTS_H
#define TESTS_PROOF_MODEL_EVENTS_H

#include <random>
#include <string>
#include <vector>

#include "tests/proof/model/model.h"

namespace proof
{

// A run as one writes it: "SET+FLAG...: EVENT EVENT ...", for example "mixed+eager: tick power:0>2".
struct Case {
    std::string set; // with its flags
    std::vector<std::string> events;
};
std::string textOf(const Case& one);
Case caseFrom(const std::string& text); // std::invalid_argument: there is no such set, flag or event

std::vector<std::string> setNames();
// Throws as caseFrom.
Television televisionOf(const std::string& set);

std::string randomSet(std::mt19937_64& random);
std::string randomEvent(std::mt19937_64& random);
// All that come by chance.
std::vector<std::string> eventNames();
// For every sequence of some length: the events that change most.
const std::vector<std::string>& fewEvents();

} // namespace proof

#endif
