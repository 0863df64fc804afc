// A set before the service starts.
#ifndef TESTS_PROOF_PROCESS_TELEVISION_H
#define TESTS_PROOF_PROCESS_TELEVISION_H

#include <cstdint>
#include <string>
#include <vector>

namespace proof
{

// What lies at one place that a module's image may come from.
struct Source {
    enum Content { kAbsent, kBroken, kSound }; // broken: the checksum is another one
    Content content = kAbsent;
    int verdict = 0; // of the control library on its version
    std::string uiUse = "none";
    uint32_t expected = 0; // seconds
};

struct Module {
    std::string name;
    std::string id; // of its package, "emp" and more; empty for an external module
    Source builtIn;
    Source package;
};

// ---- Those that the tests use ----

inline Source sound(int verdict, const char* uiUse, uint32_t expected)
{
    return {Source::kSound, verdict, uiUse, expected};
}

inline Source broken()
{
    return {Source::kBroken, 1, "none", 60};
}

inline Module alpha(const Source& builtIn, const Source& package)
{
    return {"alpha", "empAlpha", builtIn, package};
}

inline Module beta(const Source& builtIn, const Source& package)
{
    return {"beta", "empBeta", builtIn, package};
}

inline Module gamma(const Source& builtIn, const Source& package)
{
    return {"gamma", "empGamma", builtIn, package};
}

// ---- The set ----

struct Television {
    std::vector<Module> modules; // in the order of the registry
    bool isFactory = false;      // the factory marker is there
    bool wereAsked = false;      // packages were requested earlier in this boot
    bool isManagerReady = true;  // so is the package manager
    bool isEager = false;
    int working = 0;                   // another component's update session
    std::vector<std::string> failures; // calls that fail the first time
};

} // namespace proof

#endif
