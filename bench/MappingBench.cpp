// Reading mapping files of 5,000 entries, each in turn with Poco's bare DOM parse of the same files: what
// counts is the ratio. Ours check size and shape first, then parse, then walk the tree and keep the entries.

#include "BenchDirectory.h"

#include "mapping/BOMOMapper.h"
#include "persistence/AttributeSyncFile.h"
#include "platform/host/LogSink.h"
#include "platform/utility/DBObject.h"
#include "platform/utility/XmlFile.h"

#include <Poco/AutoPtr.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Document.h>
#include <Poco/SAX/InputSource.h>
#include <benchmark/benchmark.h>

#include <ctime>
#include <fstream>
#include <vector>

namespace {

constexpr int entries = 5000;

std::string objectDn(int number)
{
    return "ManagedElement=1,FAPService=1,CellConfig=1,LTE=1,RAN=" + std::to_string(number);
}

/// Every tenth entry is an object; no name occurs twice.
std::string boMoFile(int begin, int end)
{
    std::string text = "<?xml version=\"1.0\"?>\n<mapping>\n";
    for (int i = begin; i < end; ++i) {
        const std::string number = std::to_string(1000 + i);
        if (i % 10 == 0)
            text += std::string(i > begin ? "  </mo>\n" : "") + "  <mo dn=\"" + objectDn(i) + "\" bo-class=\"" +
                    number + "\">\n";
        else
            text += "    <attribute name=\"attributeName" + number + "\" bo-attribute=\"0x" + number + "\"/>\n";
    }
    return text + "  </mo>\n</mapping>\n";
}

std::string syncFile()
{
    const auto side = [](const std::string& name, int i, const std::string& attribute) {
        return "      <" + name + ">\n        <fdn>" + objectDn(i) + "</fdn>\n        <attrName>" + attribute +
               "</attrName>\n      </" + name + ">\n";
    };
    std::string text = "<?xml version=\"1.0\"?>\n<AttrSyncPairs>\n  <syncPair>\n";
    for (int i = 0; i < entries; ++i)
        text += "    <attrSyncPair>\n" + side("attr1", i, "oldName") + side("attr2", i, "newName") +
                "    </attrSyncPair>\n";
    return text + "  </syncPair>\n</AttrSyncPairs>\n";
}

void parseBare(const std::string& path)
{
    std::ifstream stream(path);
    Poco::XML::InputSource source(stream);
    Poco::XML::DOMParser parser;
    const Poco::AutoPtr<Poco::XML::Document> document = parser.parse(&source);
    benchmark::DoNotOptimize(document.get());
}

/// Of this thread, in seconds: a busy machine takes time from both sides, but not evenly.
double processorTime()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

/// Times `read`, and beside it Poco on the same files.
template <class Read>
void compare(benchmark::State& state, const std::vector<std::string>& files, Read read)
{
    double bare = 0;
    double ours = 0;
    for (auto _ : state) {
        const double begin = processorTime();
        for (const std::string& file : files)
            parseBare(file);
        const double between = processorTime();
        if (read() != entries)
            return state.SkipWithError("not every entry was read");
        const double took = processorTime() - between;
        bare += between - begin;
        ours += took;
        state.SetIterationTime(took);
    }
    state.counters["bare_ms"] = 1000 * bare / static_cast<double>(state.iterations());
    state.counters["ratio"] = ours / bare;
}

void boMoMapping(benchmark::State& state)
{
    const BenchDirectory directory;
    mw_log::configure(); // as quiet as the directory wants it
    const std::vector<std::string> names{"common_mapping.xml", "wcdma_mapping.xml"};
    std::ofstream(directory.below(names[0])) << boMoFile(0, entries / 2);
    std::ofstream(directory.below(names[1])) << boMoFile(entries / 2, entries);
    compare(state, {directory.below(names[0]), directory.below(names[1])}, [&] {
        BOMOMapper mapper;
        DBObject mapping(BOMOMapper::objectName, 1, false, false, 0, 1);
        for (const std::string& name : names)
            mapper.ParseFile(directory.below(""), name, mapping);
        return static_cast<int>(mapping.attributes.size());
    });
}

void attributeSynchronisation(benchmark::State& state)
{
    const BenchDirectory directory;
    const std::string file = directory.below(AttributeSyncFile::name);
    std::ofstream(file) << syncFile();
    compare(state, {file}, [&] {
        std::vector<AttributeSyncPair> pairs;
        AttributeSyncFile::read(XmlFile(file), [&](AttributeSyncPair pair) { pairs.push_back(std::move(pair)); });
        return static_cast<int>(pairs.size());
    });
}

} // namespace

BENCHMARK(boMoMapping)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(attributeSynchronisation)->UseManualTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
