// Text work of the client library beside a plain copy of the same bytes:
// code-page conversion, XML escaping, and reading a shared-client document.
#include <benchmark/benchmark.h>
#include <unicode/ucnv.h>
#include <xercesc/util/PlatformUtils.hpp>

#include <cstring>
#include <string>
#include <vector>

#include "BenchInputs.h"
#include "schemas/SharedClientIDs.h"
#include "util/SAXToNodeParser.h"
#include "util/Utf8.h"
#include "util/XmlText.h"

namespace {

using Arvant::Net::AvQuorvel::Util::escapeXml;
using Arvant::Net::AvQuorvel::Util::fromUtf8;
using Arvant::Net::AvQuorvel::Util::SAXToNodeParser;
using Arvant::Net::AvQuorvel::Util::toUtf8;
using Arvant::Net::AvQuorvel::Util::unescapeXml;
using Arvant::Net::AvQuorvel::Util::XMLNode;
using Arvant::Schemas::AvQuorvel::_2009_06::Base::SharedClientIDs;

enum Kind { Ascii = 0, Mixed = 1 };

std::string textOf(int kind, std::size_t size) {
    return kind == Ascii ? BenchInputs::asciiText(size) : BenchInputs::mixedText(size);
}

void setBytes(benchmark::State& state, std::size_t size) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

// Arguments: size in bytes, text kind (0 ASCII, 1 mixed).
void BM_toUtf8(benchmark::State& state) {
    const std::string text = textOf(static_cast<int>(state.range(1)), state.range(0));
    for (auto _ : state) {
        std::string utf8 = toUtf8(text.data(), static_cast<int32_t>(text.size()));
        benchmark::DoNotOptimize(utf8.data());
    }
    setBytes(state, text.size());
}

void BM_fromUtf8(benchmark::State& state) {
    const std::string text = textOf(static_cast<int>(state.range(1)), state.range(0));
    for (auto _ : state) {
        std::string native = fromUtf8(text.data(), static_cast<int32_t>(text.size()));
        benchmark::DoNotOptimize(native.data());
    }
    setBytes(state, text.size());
}

// Baseline: a new string holding a copy, what any conversion must at least do.
void BM_memcpy(benchmark::State& state) {
    const std::string text = textOf(Ascii, state.range(0));
    for (auto _ : state) {
        std::string copy(text.size(), '\0');
        std::memcpy(&copy[0], text.data(), text.size());
        benchmark::DoNotOptimize(copy.data());
    }
    setBytes(state, text.size());
}

void conversionArguments(benchmark::internal::Benchmark* b) {
    for (int kind : {Ascii, Mixed}) {
        for (int64_t size : {64, 1024, 64 * 1024, 1024 * 1024}) {
            b->Args({size, kind});
        }
    }
}

BENCHMARK(BM_toUtf8)->Apply(conversionArguments);
BENCHMARK(BM_fromUtf8)->Apply(conversionArguments);
BENCHMARK(BM_memcpy)->Arg(64)->Arg(1024)->Arg(64 * 1024)->Arg(1024 * 1024);

// An identifier of 32 bytes with one character to escape, or 64 KiB of text
// with about one in thirty.
std::string escapeInput(std::size_t size) {
    std::string text = BenchInputs::asciiText(size);
    for (std::size_t i = 5; i < text.size(); i += 31) {
        text[i] = "&<>\"'%\t\n"[i % 8];
    }
    return text;
}

void BM_escapeXml(benchmark::State& state) {
    const std::string text = escapeInput(state.range(0));
    for (auto _ : state) {
        std::string escaped = escapeXml(text);
        benchmark::DoNotOptimize(escaped.data());
    }
    setBytes(state, text.size());
}

void BM_unescapeXml(benchmark::State& state) {
    const std::string text = escapeXml(escapeInput(state.range(0)));
    for (auto _ : state) {
        std::string plain = unescapeXml(text);
        benchmark::DoNotOptimize(plain.data());
    }
    setBytes(state, text.size());
}

void BM_copyText(benchmark::State& state) {
    const std::string text = escapeInput(state.range(0));
    for (auto _ : state) {
        std::string copy = text;
        benchmark::DoNotOptimize(copy.data());
    }
    setBytes(state, text.size());
}

BENCHMARK(BM_escapeXml)->Arg(32)->Arg(64 * 1024);
BENCHMARK(BM_unescapeXml)->Arg(32)->Arg(64 * 1024);
BENCHMARK(BM_copyText)->Arg(32)->Arg(64 * 1024);

// What registerClient and its siblings do with an answer: parse it into a tree
// and read the identifiers out of it. Argument: number of identifiers.
void BM_parseSharedClients(benchmark::State& state) {
    const std::string document = BenchInputs::sharedClientsDocument(state.range(0));
    for (auto _ : state) {
        std::vector<std::string> ids;
        SharedClientIDs list;
        SAXToNodeParser parser;
        XMLNode* root = parser.parseString(document);
        list.parse(*root);
        list.getSharedClients(ids);
        benchmark::DoNotOptimize(ids.data());
    }
    setBytes(state, document.size());
    state.counters["ids/s"] = benchmark::Counter(
        static_cast<double>(state.iterations() * state.range(0)), benchmark::Counter::kIsRate);
}

// Baseline: a copy of the document and a scan for its end tags.
void BM_scanDocument(benchmark::State& state) {
    const std::string document = BenchInputs::sharedClientsDocument(state.range(0));
    for (auto _ : state) {
        std::string copy = document;
        std::size_t tags = 0;
        for (const char* at = copy.c_str(); (at = std::strstr(at, "</")) != nullptr; at += 2) {
            ++tags;
        }
        benchmark::DoNotOptimize(tags);
    }
    setBytes(state, document.size());
}

BENCHMARK(BM_parseSharedClients)->Arg(1)->Arg(10)->Arg(1000)->Arg(100000);
BENCHMARK(BM_scanDocument)->Arg(1)->Arg(10)->Arg(1000)->Arg(100000);

// A document of `levels` elements, each the only child of the one before (deep)
// or all children of the root (flat): the same bytes in another order.
std::string elementsDocument(std::size_t levels, bool deep) {
    const std::string open = "<ns0:a>", close = "</ns0:a>";
    std::string document = "<ns0:r xmlns:ns0=\"urn:x\">";
    for (std::size_t i = 1; i < levels; ++i) {
        document += deep ? open : open + close;
    }
    for (std::size_t i = 1; deep && i < levels; ++i) {
        document += close;
    }
    return document + "</ns0:r>";
}

// The deepest answer the parser takes, against the flat one of the same size.
void BM_parseNested(benchmark::State& state) {
    const std::string document = elementsDocument(state.range(0), state.range(1) != 0);
    for (auto _ : state) {
        SAXToNodeParser parser;
        benchmark::DoNotOptimize(parser.parseString(document));
    }
    setBytes(state, document.size());
}

BENCHMARK(BM_parseNested)->ArgNames({"levels", "deep"})->Args({10000, 1})->Args({10000, 0});

}  // namespace

// The conversions follow ICU's default converter, which follows the locale on
// some builds: fix it to UTF-8, as on the machines these figures come from.
int main(int argc, char** argv) {
    ucnv_setDefaultName("UTF-8");
    xercesc::XMLPlatformUtils::Initialize();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    xercesc::XMLPlatformUtils::Terminate();
    return 0;
}
