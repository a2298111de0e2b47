/* example.axpy@1: y <- a*x + y for float32, float64 and complex64, as a native quillmark plugin.
 *
 * Build (from the repository root, with quillmark installed in the active Python):
 *   cc -std=c11 -O2 -shared -fPIC -I"$(python -c 'import quillmark; print(quillmark.get_include())')" examples/plugin/axpy.c -o axpy_plugin.so
 *
 * Use:
 *   catalogue = quillmark.ContextBuilder().load_plugin("./axpy_plugin.so").build()
 *   ctx = quillmark.Context(catalogue=catalogue)
 *   ctx.execute("example.axpy@1", {"Input0": np.array(2.0), "Input1": x, "Output0": y},
 *               {"Input0": "host", "Input1": "host", "Output0": "host"})   # y is updated in place
 */
#include <quillmark/plugin.h>

#include <stdio.h>
#include <string.h>

static quillmark_string text(const char* s) {
    quillmark_string r = {s, strlen(s)};
    return r;
}

/* Operands arrive in role order: a (scalar), x (vector), y (vector, read-write). The host has
 * matched dtypes and layouts against the registration; lengths are this kernel's to check. */
static quillmark_status check_lengths(const quillmark_kernel_invocation* call, const quillmark_error_capture* error) {
    const uint64_t nx = call->operands[1].buffers[0].element_count;
    const uint64_t ny = call->operands[2].buffers[0].element_count;
    if (nx == ny) return QUILLMARK_STATUS_OK;
    char message[96];
    snprintf(message, sizeof message, "example.axpy - x and y differ in length (%llu and %llu)",
             (unsigned long long)nx, (unsigned long long)ny);
    error->set_message(error->capture_context, text(message));
    return QUILLMARK_STATUS_INVALID_ARGUMENT;
}

#define REAL_AXPY(NAME, T)                                                                                   \
    static quillmark_status NAME(void* user, const quillmark_kernel_invocation* call,                       \
                                 const quillmark_error_capture* error) {                                    \
        (void)user;                                                                                          \
        const quillmark_status status = check_lengths(call, error);                                         \
        if (status != QUILLMARK_STATUS_OK) return status;                                                    \
        const T a = *(const T*)call->operands[0].buffers[0].data;                                            \
        const T* x = (const T*)call->operands[1].buffers[0].data;                                            \
        T* y = (T*)call->operands[2].buffers[0].data;                                                        \
        const uint64_t n = call->operands[1].buffers[0].element_count;                                       \
        for (uint64_t i = 0; i < n; ++i) y[i] += a * x[i];                                                   \
        return QUILLMARK_STATUS_OK;                                                                          \
    }
REAL_AXPY(axpy_f32, float)
REAL_AXPY(axpy_f64, double)

/* A complex scalar comes as two buffers (real part, imaginary part); complex vectors interleave. */
static quillmark_status axpy_c64(void* user, const quillmark_kernel_invocation* call,
                                 const quillmark_error_capture* error) {
    (void)user;
    const quillmark_status status = check_lengths(call, error);
    if (status != QUILLMARK_STATUS_OK) return status;
    const float ar = *(const float*)call->operands[0].buffers[0].data;
    const float ai = *(const float*)call->operands[0].buffers[1].data;
    const float* x = (const float*)call->operands[1].buffers[0].data;
    float* y = (float*)call->operands[2].buffers[0].data;
    const uint64_t n = call->operands[1].buffers[0].element_count;
    for (uint64_t i = 0; i < n; ++i) {
        const float xr = x[2 * i], xi = x[2 * i + 1];
        y[2 * i] += ar * xr - ai * xi;
        y[2 * i + 1] += ar * xi + ai * xr;
    }
    return QUILLMARK_STATUS_OK;
}

static quillmark_backend_operand operand(uint32_t role, uint32_t access, uint32_t kind, uint32_t type,
                                         uint32_t complex_layout) {
    quillmark_backend_operand o = {sizeof o, role, access, kind, QUILLMARK_LOCATION_PAGEABLE_HOST,
                                   type, complex_layout, QUILLMARK_MATRIX_LAYOUT_NONE, type};
    return o;
}

/* Registers one dtype: the operand array only has to live for the duration of the call. */
static quillmark_status register_axpy(const quillmark_host* host, uint32_t type, quillmark_kernel_fn kernel) {
    const int complex = type == QUILLMARK_SCALAR_COMPLEX64;
    const quillmark_backend_operand operands[3] = {
        operand(0, QUILLMARK_ACCESS_READ, QUILLMARK_OPERAND_SCALAR, type, QUILLMARK_COMPLEX_LAYOUT_NONE),
        operand(1, QUILLMARK_ACCESS_READ, QUILLMARK_OPERAND_VECTOR, type,
                complex ? QUILLMARK_COMPLEX_LAYOUT_INTERLEAVED : QUILLMARK_COMPLEX_LAYOUT_NONE),
        operand(2, QUILLMARK_ACCESS_READ_WRITE, QUILLMARK_OPERAND_VECTOR, type,
                complex ? QUILLMARK_COMPLEX_LAYOUT_INTERLEAVED : QUILLMARK_COMPLEX_LAYOUT_NONE),
    };
    quillmark_kernel_spec spec;
    memset(&spec, 0, sizeof spec);
    spec.struct_size = sizeof spec;
    spec.operation.struct_size = sizeof spec.operation;
    spec.operation.name = text("example.axpy");
    spec.operation.major = 1;
    spec.backend = QUILLMARK_BACKEND_CPU_SCALAR;
    spec.operands = operands;
    spec.operand_count = 3;
    spec.kernel = kernel;
    return host->register_kernel(host->host_context, &spec);
}

QUILLMARK_PLUGIN_EXPORT quillmark_status quillmark_plugin_init(const quillmark_host* host,
                                                               quillmark_plugin_metadata* metadata,
                                                               const quillmark_error_capture* error) {
    (void)error;
    if (host->abi_revision != QUILLMARK_ABI_REVISION) return QUILLMARK_STATUS_UNSUPPORTED;
    metadata->abi_revision = QUILLMARK_ABI_REVISION;
    /* The ID comes first: kernels are checked against the namespace it names. */
    metadata->plugin_id = text("example");
    metadata->plugin_version = text("1.0.0");
    metadata->description = text("y <- a*x + y for float32, float64 and complex64");
    quillmark_status status = register_axpy(host, QUILLMARK_SCALAR_FLOAT32, axpy_f32);
    if (status == QUILLMARK_STATUS_OK) status = register_axpy(host, QUILLMARK_SCALAR_FLOAT64, axpy_f64);
    if (status == QUILLMARK_STATUS_OK) status = register_axpy(host, QUILLMARK_SCALAR_COMPLEX64, axpy_c64);
    return status; /* a refused registration's reason is already in the error capture */
}
