// kvlcv: runs one library operation on an image file, or the demo.
//
//   kvlcv <operation> [options] <input> <output>
//
// The operations live in one declarative table (ops.cc): a name, its options and how it calls
// the library. This file parses the command line, reads and writes images, and reports.
#include <kvlcv.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "image_io.h"
#include "ops.h"

namespace kvlcli {
namespace {

// Options every operation takes, besides --time and --help.
const Option kThreadsOpt{"threads", "threads the library may use", {}, "the available cores",
                         Kind::kInteger, 1, 1024};
const Option kMaxPixelsOpt{"max-pixels", "refuse input images of more pixels", {}, "100000000",
                           Kind::kInteger, 1, static_cast<double>(kMaxSide) * kMaxSide};

void printVersion() {
  const KvlLibraryVersion* v = kvlcvGetLibVersion();
  std::printf("%s\nversion %s (%d.%d.%d, build %d), built %s, target \"%s\"\n", v->Name, v->Version,
              v->major, v->minor, v->majorBuild, v->build, v->BuildDate, v->targetCpu);
}

void usage(FILE* out) {
  std::fprintf(out,
               "usage: kvlcv <operation> [options] <input> <output>\n"
               "       kvlcv <operation> --help    the operation's options\n"
               "       kvlcv foreground [--model gaussian|histogram] <frame>... <outdir>\n"
               "                                    separate moving objects over a sequence of frames\n"
               "       kvlcv demo [--threads N]     run every operation on the built-in photograph\n"
               "       kvlcv --version              the library's version record\n\n"
               "Images: PNG (8- or 16-bit, grey or RGB), PGM and PPM; the output format follows\n"
               "the output file's extension (.png, .pgm, .ppm).\n\noperations:\n");
  for (const Operation& op : operations()) std::fprintf(out, "  %-14s %s\n", op.name, op.summary);
  std::fprintf(out,
               "\ncommon options:\n"
               "  --threads N      threads the library may use (default: the available cores)\n"
               "  --time           print the operation's wall time and throughput\n"
               "  --max-pixels N   refuse input images of more than N pixels before reading their\n"
               "                   samples (default %llu); a pipe or device is read up to\n"
               "                   8 bytes per pixel of that limit\n",
               static_cast<unsigned long long>(kDefaultMaxPixels));
}

// One line per option of every operation: "<operation> --<option> <kind> [<word>...]", for
// scripts and tests that go through every accepted value.
void listOperations() {
  static const char* const kinds[] = {"word", "number", "integer", "flag", "file", "size", "point"};
  for (const Operation& op : operations())
    for (const Option& o : op.options) {
      std::printf("%s --%s %s", op.name, o.name, kinds[static_cast<int>(o.kind)]);
      for (const char* v : o.values) std::printf(" %s", v);
      std::printf("\n");
    }
}

void opUsage(const Operation& op, FILE* out) {
  std::fprintf(out, "usage: kvlcv %s [options] %s <output>\n\n%s\n%s\n\noptions:\n", op.name,
               op.inputs() == 2 ? "<first> <second>" : "<input>",
               op.summary, op.details);
  for (const Option& o : op.options) {
    std::string values(o.kind == Kind::kNumber || o.kind == Kind::kInteger ? "N"
                       : o.kind == Kind::kSize                             ? "WxH"
                       : o.kind == Kind::kPoint                            ? "X,Y"
                                                                           : "");
    for (const char* v : o.values) values.append(values.empty() ? "" : "|").append(v);
    if (o.kind == Kind::kFile) values.append(values.empty() ? "" : "|").append("FILE");
    std::fprintf(out, "  --%-10s %-22s %s (default %s)\n", o.name, values.c_str(), o.help,
                 o.fallback);
  }
  std::fprintf(out,
               "  --threads N    threads the library may use\n"
               "  --time         print the operation's wall time and throughput\n"
               "  --max-pixels N refuse input images of more pixels (default %llu)\n",
               static_cast<unsigned long long>(kDefaultMaxPixels));
}

int fail(const std::string& msg) {
  std::fprintf(stderr, "kvlcv: %s\n", msg.c_str());
  return 1;
}

// Parses "--name value" and "--name=value" pairs and the positional arguments.
struct CommandLine {
  Args args;
  std::vector<std::string> files;
  std::vector<std::string> flagBefore;  // per file: the flag right before it, if any
  int threads = 0;
  uint64_t maxPixels = kDefaultMaxPixels;
  bool time = false;
  bool help = false;

  // Empty when there are an input and an output, else the message; a surplus argument that
  // follows a flag is most likely a value given to it.
  std::string checkFiles(const char* opName, int inputs) const {
    const size_t want = static_cast<size_t>(inputs) + 1;
    if (files.size() < want)
      return std::string(opName) + (inputs == 2 ? " needs two input files and an output file"
                                                : " needs an input and an output file") +
             " (kvlcv " + opName + " --help)";
    if (files.size() == want) return "";
    for (size_t i = 0; i < files.size(); ++i)
      if (!flagBefore[i].empty())
        return "unexpected argument '" + files[i] + "' (" + flagBefore[i] + " takes no value)";
    return "unexpected argument '" + files[want] + "' (" + opName +
           (inputs == 2 ? " takes two input files and one output file)"
                        : " takes one input and one output file)");
  }
};

std::string parse(const Operation* op, int argc, char** argv, CommandLine* cl) {
  std::string lastFlag;
  for (int i = 2; i < argc; ++i) {
    const std::string a = argv[i], previous = lastFlag;
    lastFlag.clear();
    if (a == "--help" || a == "-h") {
      cl->help = true;
      continue;
    }
    if (a.rfind("--", 0) != 0 || a.size() == 2) {
      cl->files.push_back(a);
      cl->flagBefore.push_back(previous);
      continue;
    }
    std::string name = a.substr(2), value;
    const size_t eq = name.find('=');
    if (eq != std::string::npos) {
      value = name.substr(eq + 1);
      name = name.substr(0, eq);
    }
    const Option* opt = nullptr;
    if (name == "time") {
      if (eq != std::string::npos) return "--time takes no value";
      cl->time = true;
      lastFlag = a;
      continue;
    }
    if (name == kThreadsOpt.name) opt = &kThreadsOpt;
    if (name == kMaxPixelsOpt.name) opt = &kMaxPixelsOpt;
    if (op)
      for (const Option& o : op->options)
        if (name == o.name) opt = &o;
    if (!opt) return std::string("unknown option --") + name + (op ? std::string(" for ") + op->name : "");
    if (opt->kind == Kind::kFlag) {
      if (eq != std::string::npos) return checkValue(*opt, value);
      cl->args[name] = "1";
      lastFlag = a;
      continue;
    }
    if (eq == std::string::npos) {
      if (i + 1 >= argc) return "--" + name + " needs a value";
      value = argv[++i];
    }
    std::string err = checkValue(*opt, value);
    if (!err.empty()) return err;
    if (opt == &kThreadsOpt) cl->threads = std::atoi(value.c_str());
    else if (opt == &kMaxPixelsOpt) cl->maxPixels = std::strtoull(value.c_str(), nullptr, 10);
    else cl->args[name] = value;
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

// The foreground command: options as an operation's, then the frames and the output directory.
int runForegroundCommand(int argc, char** argv) {
  const Operation op{"foreground", "separate moving objects over a sequence of frames",
                     kForegroundDetails, foregroundOptions(), nullptr};
  CommandLine cl;
  std::string err = parse(&op, argc, argv, &cl);
  if (!err.empty()) return fail(err);
  if (cl.help) {
    std::printf("usage: kvlcv foreground [options] <frame>... <outdir>\n\n%s\n\noptions:\n"
                "  --model      gaussian|histogram      the background model (default gaussian)\n"
                "  --threads N  threads the library may use\n"
                "  --time       print the wall time and throughput\n",
                kForegroundDetails);
    return 0;
  }
  if (cl.files.size() < 2)
    return fail("foreground needs one or more frames and an output directory (kvlcv foreground "
                "--help)");
  if (cl.threads) kvlSetNumThreads(cl.threads);
  const std::string outDir = cl.files.back();
  cl.files.pop_back();
  return runForeground(cl.args, cl.files, outDir, cl.maxPixels, cl.time);
}

int run(int argc, char** argv) {
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
  if (first == "--list-ops") {
    listOperations();
    return 0;
  }
  if (first == "demo") return runDemo(argc, argv);
  if (first == "foreground") return runForegroundCommand(argc, argv);
  const Operation* op = findOperation(first);
  if (!op) return fail("unknown operation '" + first + "' (kvlcv --help lists them)");
  CommandLine cl;
  std::string err = parse(op, argc, argv, &cl);
  if (!err.empty()) return fail(err);
  if (cl.help) {
    opUsage(*op, stdout);
    return 0;
  }
  err = cl.checkFiles(op->name, op->inputs());
  if (!err.empty()) return fail(err);
  if (cl.threads) kvlSetNumThreads(cl.threads);

  Picture in, second, out;
  err = readImage(cl.files[0], &in, cl.maxPixels);
  if (!err.empty()) return fail(err);
  if (op->inputs() == 2) {
    err = readImage(cl.files[1], &second, cl.maxPixels);
    if (!err.empty()) return fail(err);
  }
  RunResult r = op->runPair ? op->runPair(cl.args, in, second, &out) : op->run(cl.args, in, &out);
  if (!r.error.empty()) return fail(std::string(op->name) + ": " + r.error);
  if (r.status != kvlStatusOk) {
    const StatusInfo s = statusInfo(r.status);
    return fail(std::string(op->name) + ": the library returned " + s.name + " (" +
                std::to_string(r.status) + "): " + s.meaning);
  }
  err = writeImage(cl.files.back(), out);
  if (!err.empty()) return fail(err);
  for (const ExtraImage& e : r.extras) {
    err = writeImage(extraPath(cl.files.back(), e.suffix), e.picture);
    if (!err.empty()) return fail(err);
  }
  std::fputs(r.report.c_str(), stdout);
  if (cl.time) {
    const double mpix = static_cast<double>(in.width) * in.height / 1e6;
    std::printf("%s %dx%d: %.3f ms, %.1f Mpixel/s\n", op->name, in.width, in.height, r.seconds * 1e3,
                mpix / r.seconds);
  }
  return 0;
}

}  // namespace
}  // namespace kvlcli

int main(int argc, char** argv) {
  // The library never throws; the tool's own containers can, and a failed allocation is one line.
  int status;
  try {
    status = kvlcli::run(argc, argv);
  } catch (const std::bad_alloc&) {
    return kvlcli::fail("out of memory (--max-pixels lowers the accepted image size)");
  }
  // Help, listings and timings that never reached their destination are a failure too.
  if (std::fflush(stdout) != 0 || std::ferror(stdout))
    return kvlcli::fail(std::string("standard output: write error (") + std::strerror(errno) + ")");
  return status;
}
