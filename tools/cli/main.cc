// kvlcv: runs one library operation on an image file, or the demo.
//
//   kvlcv <operation> [options] <input> <output>
//
// The operations live in one declarative table (ops.cc): a name, its options and how it calls
// the library. This file parses the command line, reads and writes images, and reports.
#include <kvlcv.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "image_io.h"
#include "ops.h"

namespace kvlcli {
namespace {

void printVersion() {
  const KvlLibraryVersion* v = kvlcvGetLibVersion();
  std::printf("%s\nversion %s (%d.%d.%d, build %d), built %s, target \"%s\"\n", v->Name, v->Version,
              v->major, v->minor, v->majorBuild, v->build, v->BuildDate, v->targetCpu);
}

void usage(FILE* out) {
  std::fprintf(out,
               "usage: kvlcv <operation> [options] <input> <output>\n"
               "       kvlcv <operation> --help    the operation's options\n"
               "       kvlcv demo [--threads N]     run every operation on the built-in photograph\n"
               "       kvlcv --version              the library's version record\n\n"
               "Images: PNG (8- or 16-bit, grey or RGB), PGM and PPM; the output format follows\n"
               "the output file's extension (.png, .pgm, .ppm).\n\noperations:\n");
  for (const Operation& op : operations()) std::fprintf(out, "  %-14s %s\n", op.name, op.summary);
  std::fprintf(out,
               "\ncommon options:\n"
               "  --threads N    threads the library may use (default: the available cores)\n"
               "  --time         print the operation's wall time and throughput\n");
}

void opUsage(const Operation& op, FILE* out) {
  std::fprintf(out, "usage: kvlcv %s [options] <input> <output>\n\n%s\n%s\n\noptions:\n", op.name,
               op.summary, op.details);
  for (const Option& o : op.options) {
    std::string values;
    for (const char* v : o.values) values += std::string(values.empty() ? "" : "|") + v;
    std::fprintf(out, "  --%-10s %-22s %s (default %s)\n", o.name,
                 values.empty() ? "N" : values.c_str(), o.help, o.fallback);
  }
  std::fprintf(out,
               "  --threads N    threads the library may use\n"
               "  --time         print the operation's wall time and throughput\n");
}

int fail(const std::string& msg) {
  std::fprintf(stderr, "kvlcv: %s\n", msg.c_str());
  return 1;
}

// Parses "--name value" and "--name=value" pairs and two positional arguments.
struct CommandLine {
  Args args;
  std::vector<std::string> files;
  int threads = 0;
  bool time = false;
  bool help = false;
};

std::string parse(const Operation* op, int argc, char** argv, CommandLine* cl) {
  for (int i = 2; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      cl->help = true;
      continue;
    }
    if (a == "--time") {
      cl->time = true;
      continue;
    }
    if (a.rfind("--", 0) != 0 || a.size() == 2) {
      cl->files.push_back(a);
      continue;
    }
    std::string name = a.substr(2), value;
    const size_t eq = name.find('=');
    const Option* opt = nullptr;
    if (eq != std::string::npos) {
      value = name.substr(eq + 1);
      name = name.substr(0, eq);
    }
    if (name == "threads") {
      if (eq == std::string::npos) {
        if (i + 1 >= argc) return "--threads needs a value";
        value = argv[++i];
      }
      char* end = nullptr;
      const long n = std::strtol(value.c_str(), &end, 10);
      if (*end || n < 1 || n > 1024) return "--threads takes a whole number from 1 to 1024, not '" + value + "'";
      cl->threads = static_cast<int>(n);
      continue;
    }
    if (op)
      for (const Option& o : op->options)
        if (name == o.name) opt = &o;
    if (!opt) return std::string("unknown option --") + name + (op ? std::string(" for ") + op->name : "");
    if (opt->flag) {
      cl->args[name] = "1";
      continue;
    }
    if (eq == std::string::npos) {
      if (i + 1 >= argc) return "--" + name + " needs a value";
      value = argv[++i];
    }
    std::string err = checkValue(*opt, value);
    if (!err.empty()) return err;
    cl->args[name] = value;
  }
  return "";
}

int runDemo(int argc, char** argv) {
  CommandLine cl;
  std::string err = parse(nullptr, argc, argv, &cl);
  if (!err.empty()) return fail(err);
  if (cl.help) {
    std::printf("usage: kvlcv demo [--threads N]\n\nRuns every operation on the built-in photograph "
                "and writes the results as PNG files into demo-out/.\n");
    return 0;
  }
  if (cl.threads) kvlSetNumThreads(cl.threads);
  return demo("demo-out");
}

}  // namespace
}  // namespace kvlcli

int main(int argc, char** argv) {
  using namespace kvlcli;
  if (argc < 2) {
    usage(stderr);
    return 2;
  }
  const std::string first = argv[1];
  if (first == "--help" || first == "-h" || first == "help") {
    usage(stdout);
    return 0;
  }
  if (first == "--version") {
    printVersion();
    return 0;
  }
  if (first == "demo") return runDemo(argc, argv);
  const Operation* op = findOperation(first);
  if (!op) return fail("unknown operation '" + first + "' (kvlcv --help lists them)");
  CommandLine cl;
  std::string err = parse(op, argc, argv, &cl);
  if (!err.empty()) return fail(err);
  if (cl.help) {
    opUsage(*op, stdout);
    return 0;
  }
  if (cl.files.size() != 2)
    return fail(std::string(op->name) + " needs an input and an output file (kvlcv " + op->name + " --help)");
  if (cl.threads) kvlSetNumThreads(cl.threads);

  Picture in, out;
  err = readImage(cl.files[0], &in);
  if (!err.empty()) return fail(err);
  RunResult r = op->run(cl.args, in, &out);
  if (!r.error.empty()) return fail(std::string(op->name) + ": " + r.error);
  if (r.status != kvlStatusOk) {
    const StatusInfo s = statusInfo(r.status);
    return fail(std::string(op->name) + ": the library returned " + s.name + " (" +
                std::to_string(r.status) + "): " + s.meaning);
  }
  err = writeImage(cl.files[1], out);
  if (!err.empty()) return fail(err);
  if (cl.time) {
    const double mpix = static_cast<double>(in.width) * in.height / 1e6;
    std::printf("%s %dx%d: %.3f ms, %.1f Mpixel/s\n", op->name, in.width, in.height, r.seconds * 1e3,
                mpix / r.seconds);
  }
  return 0;
}
