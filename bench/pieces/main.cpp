/// Pieces of the daemon in process.
#include "../driver/SampleConfiguration.h"

#include "misc/Utils.h"
#include "server/applications/appconf/AppConfigParser.h"
#include "server/applications/appconf/XmlReader.h"

#include <benchmark/benchmark.h>
#include <libxml/parser.h>

#include <QDomDocument>

namespace {

using core::configuration::ApplicationConfig;
using core::configuration::Parser;

const QByteArray kConfiguration = kxbench::kSampleConfiguration;

void Libxml2Reads(benchmark::State& state)
{
    while (state.KeepRunning()) {
        xmlDoc* document =
            xmlReadMemory(kConfiguration.constData(), kConfiguration.size(), nullptr, nullptr, 0);
        benchmark::DoNotOptimize(document);
        xmlFreeDoc(document);
    }
}

void CheckedReading(benchmark::State& state)
{
    while (state.KeepRunning()) {
        QDomDocument document;
        benchmark::DoNotOptimize(core::configuration::ParseXml(kConfiguration, document));
    }
}

void WholeParser(benchmark::State& state)
{
    Parser parser;
    while (state.KeepRunning()) {
        ApplicationConfig config("pay");
        parser.ParseApplicationConfig(kConfiguration.constData(), config);
        benchmark::DoNotOptimize(config.m_prompts);
    }
}

void RecordToMap(benchmark::State& state)
{
    ApplicationConfig config("pay");
    Parser().ParseApplicationConfig(kConfiguration.constData(), config);
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(static_cast<QVariantMap>(config));
    }
}

void PathNormalizing(benchmark::State& state)
{
    const QString path = "./html/../html/index.html";
    const QString home = "/home/pay";
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(FileSystem::NormalizeFilePath(path, home));
    }
}

BENCHMARK(Libxml2Reads);
BENCHMARK(CheckedReading);
BENCHMARK(WholeParser);
BENCHMARK(RecordToMap);
BENCHMARK(PathNormalizing);

} // namespace

BENCHMARK_MAIN();
