// What synchronised attributes cost a commit: one that no pair concerns, beside the same commit of a
// store without pairs, and one that is mirrored, with few pairs and with many. Rounds of all of them
// follow each other in one run: attribute_sync_bench [ROUNDS].

#include "BenchDirectory.h"
#include "BenchTree.h"

#include "persistence/AttributeSyncFile.h"
#include "platform/host/LogSink.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr int objects = 1000;
constexpr int updates = 1000;

std::string side(int number, const std::string& dn, const std::string& attribute)
{
    const std::string tag = "attr" + std::to_string(number);
    return "<" + tag + "><fdn>" + dn + "</fdn><attrName>" + attribute + "</attrName></" + tag + ">";
}

/// Pairs of the items' attribute `name`; one in ten has a pattern that matches nothing, of the class and the
/// attribute that change.
void writePairs(const std::string& directory, int count, const std::string& name)
{
    std::ofstream file(directory + "/" + AttributeSyncFile::name);
    file << "<AttrSyncPairs><syncPair>";
    for (int i = 0; i < count; ++i) {
        const std::string other = i % 10 == 9 ? "ManagedElement=1,None=" + std::to_string(i) + ",Item=%" : parentDn(i);
        file << "<attrSyncPair>" << side(1, parentDn(i) + "," + childPair(i), name)
             << side(2, other, i % 10 == 9 ? "attribute1" : "successor" + std::to_string(i)) << "</attrSyncPair>";
    }
    file << "</syncPair></AttrSyncPairs>";
}

/// The median of single commits, in microseconds, on a fresh store with this many pairs.
double commit(const BenchDirectory& directory, int pairs, const std::string& name)
{
    SQLite& store = storeOfItems(objects);
    if (pairs > 0) {
        writePairs(directory.below("flash"), pairs, name);
        setenv("DEPRECATED_MOM_ATTRIBUTE_MAPPING_FILE_PATH", directory.below("flash").c_str(), 1);
        mustSucceed(store.parseDeprecatedAttributeMappingXML());
        store.setAttributeSynchronisationEnabled();
    }
    std::vector<double> times;
    for (int i = 0; i < updates; ++i) {
        DBObject change = changeOf(0); // always the same one: of a pair, when the attribute has any
        const auto begin = std::chrono::steady_clock::now();
        mustSucceed(store.sql_update(&change, false, "bench"));
        times.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count());
    }
    SQLite::destroyInstance(false);
    std::ranges::nth_element(times, times.begin() + updates / 2);
    return times[updates / 2];
}

struct Case {
    const char* what;
    int pairs;
    const char* attribute; // of the pairs; attribute1 is the one that changes
    std::vector<double> times = {};
};

double median(std::vector<double> times)
{
    std::ranges::sort(times);
    return times[times.size() / 2];
}

} // namespace

int main(int count, char** arguments)
{
    const int rounds = count > 1 ? std::max(std::atoi(arguments[1]), 1) : 11;
    const BenchDirectory directory;
    mw_log::configure();
    Case cases[] = {{"no pairs", 0, ""},
                    {"1,000 pairs of other attributes", 1000, "attribute0"},
                    {"mirrored, 1 pair", 1, "attribute1"},
                    {"mirrored, 1,000 pairs", 1000, "attribute1"}};
    for (int round = 0; round < rounds; ++round)
        for (Case& each : cases)
            each.times.push_back(commit(directory, each.pairs, each.attribute));
    std::printf("%-34s %10s %22s\n", "commit of one attribute", "us", "ratio to no pairs");
    for (const Case& each : cases)
        std::printf("%-34s %10.1f %22.2f\n", each.what, median(each.times),
                    median(each.times) / median(cases[0].times));
    std::printf("mirrored, 1,000 pairs to 1: %.2f\n", median(cases[3].times) / median(cases[2].times));
}
