/// Pieces of the daemon in process, on an app.conf of ten elements.
#include "server/applications/appconf/AppConfigParser.h"

#include <benchmark/benchmark.h>
#include <libxml/parser.h>

#include <QFile>

namespace {

using core::configuration::ApplicationConfig;
using core::configuration::Parser;

QByteArray g_xml;

void Libxml2Reads(benchmark::State& state)
{
    while (state.KeepRunning()) {
        xmlDoc* document = xmlReadMemory(g_xml.constData(), g_xml.size(), nullptr, nullptr, XML_PARSE_NONET);
        benchmark::DoNotOptimize(document);
        xmlFreeDoc(document);
    }
}

void ParseApplicationConfig(benchmark::State& state)
{
    while (state.KeepRunning()) {
        ApplicationConfig config("pay");
        Parser().ParseApplicationConfig(g_xml.constData(), config);
        benchmark::DoNotOptimize(config.m_prompts);
    }
}

void RecordToMap(benchmark::State& state)
{
    ApplicationConfig config("pay");
    Parser().ParseApplicationConfig(g_xml.constData(), config);
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(static_cast<QVariantMap>(config));
    }
}

BENCHMARK(Libxml2Reads);
BENCHMARK(ParseApplicationConfig);
BENCHMARK(RecordToMap);

} // namespace

int main(int argc, char** argv)
{
    QFile file("/usr/libexec/kx-bench/app.conf");
    if (!file.open(QIODevice::ReadOnly)) {
        return 1;
    }
    g_xml = file.readAll();
    benchmark::Initialize(&argc, argv);
    return benchmark::RunSpecifiedBenchmarks() > 0 ? 0 : 1;
}
