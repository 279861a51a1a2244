// A shell bound to a provider loaded as a host loads it, with the emulator's demo array behind
// it, for the tests of the commands that change the array: runs lines as text or JSON, and copies
// the vdisks of the array's model out under its lock, so that a test checks what the array holds.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "shell.h"
#include "sim/model.h"
#include "testlib/provider_env.h"

using testlib::ProviderEnv;
using trovctl::Shell;
using Json = nlohmann::ordered_json;

namespace {

struct Result {
    int rc;
    std::string out, err;
};

// The parts of a vdisk a test looks at, copied out of the model under its lock.
struct VdiskView {
    std::string name;
    uint8_t raid = 0;
    uint32_t stripeKiB = 0;
    std::set<std::string> members;
    std::vector<std::string> spares;
    std::vector<std::pair<std::string, uint64_t>> parts;  // name, blocks
    uint64_t freeBlocks = 0;
    uint8_t owner = 1;  // 1 = controller A, 0 = B
};

class LoadedArrayShell : public ::testing::Test {
public:
    LoadedArrayShell() : env("demo") {}

    void SetUp() override {
        ASSERT_EQ(env.Load(), S_OK);
        shell = std::make_unique<Shell>(env.provider, out, err, false);
    }

    Result Run(const std::string& line, bool json = false) {
        shell->SetJson(json);
        out.str({});
        err.str({});
        int rc = shell->ExecuteLine(line);
        return {rc, out.str(), err.str()};
    }
    Json JsonOf(const std::string& line) {
        Result r = Run(line, true);
        EXPECT_EQ(r.rc, 0) << line << ": " << r.err;
        return Json::parse(r.out, nullptr, false);
    }

    std::vector<VdiskView> Vdisks() {
        return env.sim->WithModel([](trovsim::Model& m) {
            std::vector<VdiskView> all;
            for (const trovsim::Vdisk& v : m.subsystems()[0].vdisks) {
                VdiskView x;
                x.name = v.name;
                x.raid = v.raid;
                x.stripeKiB = v.stripeKiB;
                x.members.insert(v.members.begin(), v.members.end());
                x.spares = v.spares;
                for (const trovsim::Partition& p : v.parts) x.parts.push_back({p.name, p.blocks});
                x.freeBlocks = trovsim::Model::FreeOf(v).total;
                x.owner = v.owner;
                all.push_back(std::move(x));
            }
            return all;
        });
    }
    // The vdisk that holds a partition of this name.
    VdiskView VdiskOf(const std::string& partition) {
        for (VdiskView& v : Vdisks())
            for (auto& p : v.parts)
                if (p.first == partition) return v;
        ADD_FAILURE() << "no partition " << partition << " on the array";
        return {};
    }
    // A partition of the model as it stands (views, cache, type); an empty one when none has the name.
    trovsim::Partition Part(const std::string& name) {
        return env.sim->WithModel([&](trovsim::Model& m) {
            for (const trovsim::Vdisk& v : m.subsystems()[0].vdisks)
                for (const trovsim::Partition& p : v.parts)
                    if (p.name == name) return p;
            return trovsim::Partition{};
        });
    }
    // Every partition of the array with its size, to see that a refusal changed nothing.
    std::multiset<std::pair<std::string, uint64_t>> Layout() {
        std::multiset<std::pair<std::string, uint64_t>> all;
        for (const VdiskView& v : Vdisks()) {
            all.insert({"vdisk " + v.name, v.members.size()});
            for (auto& p : v.parts) all.insert(p);
        }
        return all;
    }

    ProviderEnv env;
    std::ostringstream out, err;
    std::unique_ptr<Shell> shell;
};

}  // namespace
