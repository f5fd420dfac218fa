/// Pieces of the daemon in process.
#include "../driver/SampleConfiguration.h"

#include "misc/Utils.h"
#include "server/applications/appconf/AppConfigParser.h"
#include "server/applications/appconf/XmlReader.h"

#include <benchmark/benchmark.h>
#include <pugixml.hpp>

#include <QDomDocument>

namespace {

using core::configuration::ApplicationConfig;
using core::configuration::Parser;

const QByteArray kConfiguration = kxbench::kSampleConfiguration;

void PugixmlReads(benchmark::State& state)
{
    while (state.KeepRunning()) {
        pugi::xml_document document;
        benchmark::DoNotOptimize(document.load_buffer(kConfiguration.constData(), kConfiguration.size()));
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
        ApplicationConfig config(QStringLiteral("pay"));
        parser.ParseApplicationConfig(kConfiguration.constData(), config);
        benchmark::DoNotOptimize(config.m_prompts);
    }
}

void RecordToMap(benchmark::State& state)
{
    ApplicationConfig config(QStringLiteral("pay"));
    Parser().ParseApplicationConfig(kConfiguration.constData(), config);
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(static_cast<QVariantMap>(config));
    }
}

void PathNormalizing(benchmark::State& state)
{
    const QString path = QStringLiteral("./html/../html/index.html");
    const QString home = QStringLiteral("/home/pay");
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(FileSystem::NormalizeFilePath(path, home));
    }
}

BENCHMARK(PugixmlReads);
BENCHMARK(CheckedReading);
BENCHMARK(WholeParser);
BENCHMARK(RecordToMap);
BENCHMARK(PathNormalizing);

} // namespace

BENCHMARK_MAIN();
