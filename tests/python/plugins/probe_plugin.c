/* A plugin for the loader tests. Compiled once per case with -D switches that break one thing:
 *   PLUGIN_ID, OP_NS (namespace of the kernels' operations), PLUGIN_VERSION, PLUGIN_DESCRIPTION
 *   INIT_STATUS / INIT_MESSAGE: what quillmark_plugin_init returns and reports
 *   METADATA_SIZE, ABI_REVISION, CUDA_MIN, CUDA_MAX, MALFORMED_ID, MALFORMED_VERSION, NO_KERNELS
 *   FAULT: registers one extra, faulty kernel (see fault_kernel); IGNORE_FAILURE returns OK anyway */
#define _POSIX_C_SOURCE 199309L /* nanosleep */
#include <quillmark/plugin.h>

#include <stdio.h>
#include <string.h>
#include <time.h>

#ifndef PLUGIN_ID
#define PLUGIN_ID "probe"
#endif
#ifndef OP_NS
#define OP_NS PLUGIN_ID
#endif
#ifndef PLUGIN_VERSION
#define PLUGIN_VERSION "1.0"
#endif
#ifndef PLUGIN_DESCRIPTION
#define PLUGIN_DESCRIPTION "kernels for the loader tests"
#endif
#ifndef INIT_STATUS
#define INIT_STATUS QUILLMARK_STATUS_OK
#endif
#ifndef METADATA_SIZE
#define METADATA_SIZE 64
#endif
#ifndef ABI_REVISION
#define ABI_REVISION QUILLMARK_ABI_REVISION
#endif
#ifndef CUDA_MIN
#define CUDA_MIN 0
#endif
#ifndef CUDA_MAX
#define CUDA_MAX 0
#endif
#ifndef FAULT
#define FAULT 0
#endif

#define READ QUILLMARK_ACCESS_READ
#define WRITE QUILLMARK_ACCESS_WRITE
#define F64 QUILLMARK_SCALAR_FLOAT64
#define C64 QUILLMARK_SCALAR_COMPLEX64
#define C128 QUILLMARK_SCALAR_COMPLEX128
#define NONE QUILLMARK_COMPLEX_LAYOUT_NONE
#define SPLIT QUILLMARK_COMPLEX_LAYOUT_SPLIT
#define INTERLEAVED QUILLMARK_COMPLEX_LAYOUT_INTERLEAVED

static quillmark_string text(const char* s) {
    quillmark_string r = {s, strlen(s)};
    return r;
}

static quillmark_status fail(const quillmark_error_capture* error, quillmark_status status, const char* message) {
    error->set_message(error->capture_context, text(message));
    return status;
}

/* Every kernel first checks the records against its own declaration. */
static int records_ok(const quillmark_kernel_invocation* inv, uint64_t count, uint32_t backend) {
    if (inv->struct_size != sizeof *inv || inv->backend != backend || inv->cuda_device != -1 || inv->stream ||
        inv->operand_count != count)
        return 0;
    for (uint64_t i = 0; i < count; ++i) {
        const quillmark_operand_entry* e = &inv->operands[i];
        if (e->struct_size != sizeof *e || e->declaration_size != 36 || e->declaration.struct_size != 36 ||
            e->declaration.role_index != i)
            return 0;
        for (uint64_t b = 0; b < e->buffer_count; ++b)
            if (e->buffers[b].struct_size != sizeof(quillmark_buffer_descriptor)) return 0;
    }
    return 1;
}
/* Every kernel's signature; none uses its user data. */
#define KERNEL(name)                                                                                               \
    static quillmark_status name(void* user __attribute__((unused)), const quillmark_kernel_invocation* inv,        \
                                 const quillmark_error_capture* error)
#define CHECK_RECORDS(count, backend)                                                                      \
    if (!records_ok(inv, count, backend)) return fail(error, QUILLMARK_STATUS_INTERNAL_ERROR, "bad invocation records")

/* y = a * x; checks its own shapes. */
KERNEL(scale) {
    CHECK_RECORDS(3, QUILLMARK_BACKEND_CPU_SCALAR);
    const quillmark_buffer_descriptor* a = inv->operands[0].buffers;
    const quillmark_buffer_descriptor* x = inv->operands[1].buffers;
    const quillmark_buffer_descriptor* y = inv->operands[2].buffers;
    if (x->element_count != y->element_count)
        return fail(error, QUILLMARK_STATUS_INVALID_ARGUMENT, "probe.scale - length mismatch");
    const double alpha = *(const double*)a->data;
    for (uint64_t i = 0; i < x->element_count; ++i) ((double*)y->data)[i] = alpha * ((const double*)x->data)[i];
    return QUILLMARK_STATUS_OK;
}

/* y = conj(x) on split planes. */
KERNEL(conj_split) {
    CHECK_RECORDS(2, QUILLMARK_BACKEND_CPU_SCALAR);
    const quillmark_operand_entry* x = &inv->operands[0];
    const quillmark_operand_entry* y = &inv->operands[1];
    if (x->buffer_count != 2 || y->buffer_count != 2 || x->buffers[0].role != QUILLMARK_BUFFER_REAL ||
        x->buffers[1].role != QUILLMARK_BUFFER_IMAGINARY || x->buffers[0].scalar_type != QUILLMARK_SCALAR_FLOAT32 ||
        x->declaration.complex_layout != SPLIT)
        return fail(error, QUILLMARK_STATUS_INTERNAL_ERROR, "bad split buffers");
    const uint64_t n = x->buffers[0].element_count;
    for (uint64_t i = 0; i < n; ++i) {
        ((float*)y->buffers[0].data)[i] = ((const float*)x->buffers[0].data)[i];
        ((float*)y->buffers[1].data)[i] = -((const float*)x->buffers[1].data)[i];
    }
    return QUILLMARK_STATUS_OK;
}

/* out[i][j] = conj(in[rows-1-i][j]) on interleaved row-major complex128. */
KERNEL(flip) {
    CHECK_RECORDS(2, QUILLMARK_BACKEND_CPU_SCALAR);
    const quillmark_buffer_descriptor* in = inv->operands[0].buffers;
    const quillmark_buffer_descriptor* out = inv->operands[1].buffers;
    if (in->role != QUILLMARK_BUFFER_DATA || in->scalar_type != C128 || in->shape[0] != out->shape[0] ||
        in->shape[1] != out->shape[1])
        return fail(error, QUILLMARK_STATUS_INVALID_ARGUMENT, "probe.flip - shape mismatch");
    const uint64_t rows = in->shape[0], cols = in->shape[1];
    const double* src = (const double*)in->data;
    double* dst = (double*)out->data;
    for (uint64_t i = 0; i < rows; ++i)
        for (uint64_t j = 0; j < cols; ++j) {
            dst[2 * (i * cols + j)] = src[2 * ((rows - 1 - i) * cols + j)];
            dst[2 * (i * cols + j) + 1] = -src[2 * ((rows - 1 - i) * cols + j) + 1];
        }
    return QUILLMARK_STATUS_OK;
}

/* The determinant from packed LU factors, pivots and swap count. */
KERNEL(lu_det) {
    CHECK_RECORDS(2, QUILLMARK_BACKEND_CPU_SCALAR);
    const quillmark_operand_entry* lu = &inv->operands[0];
    if (lu->buffer_count != 3 || lu->buffers[0].role != QUILLMARK_BUFFER_LU_FACTORS ||
        lu->buffers[1].role != QUILLMARK_BUFFER_LU_PIVOTS || lu->buffers[2].role != QUILLMARK_BUFFER_LU_SWAP_COUNT ||
        lu->buffers[1].scalar_type != QUILLMARK_SCALAR_INT64)
        return fail(error, QUILLMARK_STATUS_INTERNAL_ERROR, "bad LU buffers");
    const uint64_t n = lu->buffers[1].element_count;
    const double* factors = (const double*)lu->buffers[0].data;
    const int64_t* pivots = (const int64_t*)lu->buffers[1].data;
    int64_t swaps = 0;
    for (uint64_t i = 0; i < n; ++i) swaps += pivots[i] != (int64_t)(i + 1);
    if (swaps != *(const int64_t*)lu->buffers[2].data)
        return fail(error, QUILLMARK_STATUS_INTERNAL_ERROR, "pivots disagree with the swap count");
    double det = swaps % 2 ? -1.0 : 1.0;
    for (uint64_t i = 0; i < n; ++i) det *= factors[i + i * n];
    *(double*)inv->operands[1].buffers[0].data = det;
    return QUILLMARK_STATUS_OK;
}

/* out[i] = values[i] * vectors[0][i]: reads both buffers of an eigen operand (complex64). */
KERNEL(eigen_mix) {
    CHECK_RECORDS(2, QUILLMARK_BACKEND_CPU_SCALAR);
    const quillmark_operand_entry* eig = &inv->operands[0];
    const uint64_t n = eig->buffers[0].element_count;
    if (eig->buffer_count != 2 || eig->buffers[0].role != QUILLMARK_BUFFER_EIGENVALUES ||
        eig->buffers[1].role != QUILLMARK_BUFFER_EIGENVECTORS || eig->buffers[1].shape[0] != n ||
        eig->buffers[1].shape[1] != n || eig->buffers[1].scalar_type != C64)
        return fail(error, QUILLMARK_STATUS_INTERNAL_ERROR, "bad eigen buffers");
    const float* values = (const float*)eig->buffers[0].data;
    const float* vectors = (const float*)eig->buffers[1].data; /* column-major: row 0 is every n-th */
    float* out = (float*)inv->operands[1].buffers[0].data;
    for (uint64_t i = 0; i < n; ++i) {
        const float vr = values[2 * i], vi = values[2 * i + 1];
        const float wr = vectors[2 * i * n], wi = vectors[2 * i * n + 1];
        out[2 * i] = vr * wr - vi * wi;
        out[2 * i + 1] = vr * wi + vi * wr;
    }
    return QUILLMARK_STATUS_OK;
}

/* Fails with the status in x[0]. */
KERNEL(refuse) {
    CHECK_RECORDS(2, QUILLMARK_BACKEND_CPU_SIMD);
    const int status = (int)((const double*)inv->operands[0].buffers[0].data)[0];
    char message[64];
    snprintf(message, sizeof message, "refused with %d", status);
    return status ? fail(error, status, message) : QUILLMARK_STATUS_OK;
}

/* Marks out[0], then waits (bounded) until another thread sets flag[0]. */
KERNEL(wait_flag) {
    CHECK_RECORDS(2, QUILLMARK_BACKEND_CPU_SCALAR);
    volatile const double* flag = (volatile const double*)inv->operands[0].buffers[0].data;
    volatile double* out = (volatile double*)inv->operands[1].buffers[0].data;
    out[0] = 1.0;
    const struct timespec pause = {0, 1000000};
    for (int i = 0; i < 20000 && flag[0] == 0.0; ++i) nanosleep(&pause, NULL);
    if (flag[0] == 0.0) return fail(error, QUILLMARK_STATUS_RUNTIME_ERROR, "flag never set");
    return QUILLMARK_STATUS_OK;
}

/* Host-resident, computing in its storage type. */
#define OPERAND(role, access, kind, storage, complex, layout)                                                     \
    {sizeof(quillmark_backend_operand), role, access, QUILLMARK_OPERAND_##kind, QUILLMARK_LOCATION_PAGEABLE_HOST,    \
     storage, complex, layout, storage}
#define ROW_MAJOR QUILLMARK_MATRIX_LAYOUT_ROW_MAJOR
#define VECTORS_F64 {OPERAND(0, READ, VECTOR, F64, NONE, 0), OPERAND(1, WRITE, VECTOR, F64, NONE, 0)}

static const quillmark_backend_operand scale_ops[3] = {OPERAND(0, READ, SCALAR, F64, NONE, 0),
                                                       OPERAND(1, READ, VECTOR, F64, NONE, 0),
                                                       OPERAND(2, WRITE, VECTOR, F64, NONE, 0)};
static const quillmark_backend_operand split_ops[2] = {OPERAND(0, READ, VECTOR, C64, SPLIT, 0),
                                                       OPERAND(1, WRITE, VECTOR, C64, SPLIT, 0)};
static const quillmark_backend_operand flip_ops[2] = {OPERAND(0, READ, MATRIX, C128, INTERLEAVED, ROW_MAJOR),
                                                      OPERAND(1, WRITE, MATRIX, C128, INTERLEAVED, ROW_MAJOR)};
static const quillmark_backend_operand lu_ops[2] = {OPERAND(0, READ, LU, F64, NONE, 0),
                                                    OPERAND(1, WRITE, SCALAR, F64, NONE, 0)};
static const quillmark_backend_operand eigen_ops[2] = {OPERAND(0, READ, EIGEN, C64, INTERLEAVED, 0),
                                                       OPERAND(1, WRITE, VECTOR, C64, INTERLEAVED, 0)};
static const quillmark_backend_operand refuse_ops[2] = VECTORS_F64, wait_ops[2] = VECTORS_F64;
static quillmark_backend_operand fault_ops[3];

static quillmark_kernel_spec spec(const char* name, uint32_t backend, const quillmark_backend_operand* operands,
                                  uint64_t count, quillmark_kernel_fn kernel) {
    quillmark_kernel_spec s = {.struct_size = sizeof s, .backend = backend, .operands = operands,
                               .operand_count = count, .kernel = kernel};
    s.operation = (quillmark_operation_id){.struct_size = sizeof s.operation, .name = text(name), .major = 1};
    return s;
}

/* A second kernel of OP_NS.scale (on the SIMD backend) with FAULT's defect; NULL means a null spec. */
static const quillmark_kernel_spec* fault_kernel(quillmark_kernel_spec* s) {
    memcpy(fault_ops, scale_ops, sizeof scale_ops);
    *s = spec(OP_NS ".scale", QUILLMARK_BACKEND_CPU_SIMD, fault_ops, 3, scale);
    switch (FAULT) {
    case 1: return NULL;
    case 2: s->struct_size = 72; break;
    case 3: s->operation.struct_size = 24; break;
    case 4: s->operation.name.data = NULL; break;
    case 5: s->backend = QUILLMARK_BACKEND_CUDA; break;
    case 6: s->backend = 7; break;
    case 7: s->kernel = NULL; break;
    case 8: s->operands = NULL; break;
    case 9: s->operand_count = 0; break;
    case 10: fault_ops[1].struct_size = 32; break;
    case 11: fault_ops[1].kind = 6; break;
    case 12: fault_ops[1].location = 4; break;
    case 13: fault_ops[1].storage_type = 7; break;
    case 14: fault_ops[1].complex_layout = 4; break;
    case 15: fault_ops[1].matrix_layout = 3; break;
    case 16: fault_ops[1].access = 0; break;
    case 17: fault_ops[1].compute_type = C128; break;
    case 18: fault_ops[0] = (quillmark_backend_operand)OPERAND(0, READ, SCALAR, C64, SPLIT, 0); break;
    case 19: fault_ops[1].matrix_layout = ROW_MAJOR; break;
    case 20: s->operand_count = 2; break;
    case 21: fault_ops[2].access = READ; break;
    case 22: fault_ops[1].kind = QUILLMARK_OPERAND_MATRIX; fault_ops[1].matrix_layout = 1; break;
    case 23: s->operation.name = text("other.scale"); break;
    case 24: s->operation.name = text(OP_NS ".peek"); fault_ops[2].access = READ; break;
    case 25:
        s->operation.name = text(OP_NS ".split_lu");
        fault_ops[2] = (quillmark_backend_operand)OPERAND(2, WRITE, LU, C64, SPLIT, 0);
        break;
    case 26:
        s->operation.name = text(OP_NS ".grid");
        fault_ops[2] = (quillmark_backend_operand)OPERAND(2, WRITE, MATRIX, F64, NONE, 0);
        break;
    case 27: s->operation.name = text(OP_NS ".swapped"); fault_ops[1].role_index = 2; break;
    case 28: s->operation.name = text(OP_NS ".Bad"); break;
    case 29: fault_ops[1].struct_size = 32; fault_ops[1].kind = 6; break;
    }
    return s;
}

QUILLMARK_PLUGIN_EXPORT quillmark_status quillmark_plugin_init(const quillmark_host* host,
                                                               quillmark_plugin_metadata* metadata,
                                                               const quillmark_error_capture* error) {
    if (host->struct_size != sizeof *host || host->abi_revision != QUILLMARK_ABI_REVISION ||
        metadata->struct_size != 64 || error->struct_size != sizeof *error)
        return QUILLMARK_STATUS_INTERNAL_ERROR;
    metadata->struct_size = METADATA_SIZE;
    metadata->abi_revision = ABI_REVISION;
    metadata->plugin_id = text(PLUGIN_ID);
    metadata->plugin_version = text(PLUGIN_VERSION);
    metadata->description = text(PLUGIN_DESCRIPTION);
    metadata->cuda_runtime_min = CUDA_MIN;
    metadata->cuda_runtime_max = CUDA_MAX;
#ifdef MALFORMED_ID
    metadata->plugin_id.data = NULL;
#endif
#ifdef MALFORMED_VERSION
    metadata->plugin_version.data = NULL;
#endif

    quillmark_kernel_spec specs[8];
    const quillmark_kernel_spec* order[8];
#ifdef NO_KERNELS
    const int kernels = 0;
#else
    const int kernels = 7;
#endif
    specs[0] = spec(OP_NS ".scale", QUILLMARK_BACKEND_CPU_SCALAR, scale_ops, 3, scale);
    specs[1] = spec(OP_NS ".conj", QUILLMARK_BACKEND_CPU_SCALAR, split_ops, 2, conj_split);
    specs[2] = spec(OP_NS ".flip", QUILLMARK_BACKEND_CPU_SCALAR, flip_ops, 2, flip);
    specs[3] = spec(OP_NS ".lu_det", QUILLMARK_BACKEND_CPU_SCALAR, lu_ops, 2, lu_det);
    specs[4] = spec(OP_NS ".refuse", QUILLMARK_BACKEND_CPU_SIMD, refuse_ops, 2, refuse);
    specs[5] = spec(OP_NS ".wait", QUILLMARK_BACKEND_CPU_SCALAR, wait_ops, 2, wait_flag);
    specs[6] = spec(OP_NS ".eigen_mix", QUILLMARK_BACKEND_CPU_SCALAR, eigen_ops, 2, eigen_mix);
    int count = 0;
    for (; count < kernels; ++count) order[count] = &specs[count];
    if (FAULT && kernels) order[count++] = fault_kernel(&specs[7]);
    for (int i = 0; i < count; ++i) {
        const quillmark_status status = host->register_kernel(host->host_context, order[i]);
#ifndef IGNORE_FAILURE
        if (status != QUILLMARK_STATUS_OK) return status;
#else
        (void)status;
#endif
    }
#ifdef INIT_MESSAGE
    fail(error, QUILLMARK_STATUS_OK, INIT_MESSAGE);
#endif
    return INIT_STATUS;
}
