! Calls the solver the way a Fortran program does: every argument by
! reference, the handle as 64 eight-byte integers.  Solves a real and a
! complex diagonal system and compares the solution with b/a.

! The value arrays are real or complex by matrix type, so the interface takes
! them as assumed-type arrays; everything else is declared as it is.
module velmora_calls
  implicit none
  interface
    subroutine velmorainit(pt, mtype, solver, iparm, dparm, error)
      integer(8) :: pt(64)
      integer(4) :: mtype, solver, iparm(64), error
      real(8) :: dparm(64)
    end subroutine velmorainit
    subroutine velmora(pt, maxfct, mnum, mtype, phase, n, a, ia, ja, perm, nrhs, iparm, &
                       msglvl, b, x, error, dparm)
      integer(8) :: pt(64)
      integer(4) :: maxfct, mnum, mtype, phase, n, ia(*), ja(*), perm(*), nrhs, iparm(64)
      integer(4) :: msglvl, error
      type(*) :: a(*), b(*), x(*)
      real(8) :: dparm(64)
    end subroutine velmora
  end interface
end module velmora_calls

program diag_fortran
  implicit none
  integer :: failures

  failures = 0
  call solve_real(failures)
  call solve_complex(failures)
  if (failures /= 0) then
    print '(a,i0,a)', 'fortran diag: ', failures, ' failure(s)'
    stop 1
  end if
  print '(a)', 'fortran diag: ok'
end program diag_fortran

subroutine solve_real(failures)
  use velmora_calls
  implicit none
  integer, intent(inout) :: failures
  integer, parameter :: nmax = 6
  integer(8) :: pt(64)
  integer(4) :: iparm(64), ia(nmax + 1), ja(nmax), perm(nmax)
  real(8) :: dparm(64), a(nmax), b(nmax), x(nmax)
  integer(4) :: maxfct, mnum, mtype, phase, n, nrhs, msglvl, error, solver, i, k
  integer(4) :: phases(3)

  n = nmax
  maxfct = 1
  mnum = 1
  mtype = 11
  solver = 0
  nrhs = 1
  msglvl = 0
  phases = (/ 13, 33, -1 /)
  do i = 1, n
    ia(i) = i
    ja(i) = i
    a(i) = real(i, 8) * 1.5d0
    if (mod(i, 2) == 0) a(i) = -a(i)
    b(i) = real(i * i, 8) + 0.5d0
    perm(i) = 0
  end do
  ia(n + 1) = n + 1

  call velmorainit(pt, mtype, solver, iparm, dparm, error)
  if (error /= 0 .or. iparm(1) /= 1 .or. iparm(10) /= 12) then
    print '(a,i0,a,i0)', 'real: velmorainit error ', error, ' iparm(10) ', iparm(10)
    failures = failures + 1
  end if

  do k = 1, size(phases)
    phase = phases(k)
    x = -999.0d0
    call velmora(pt, maxfct, mnum, mtype, phase, n, a, ia, ja, perm, nrhs, iparm, &
                 msglvl, b, x, error, dparm)
    if (error /= 0) then
      print '(a,i0,a,i0)', 'real: phase ', phase, ' error ', error
      failures = failures + 1
    end if
    if (phase > 0) then
      if (iparm(12) /= -1) then
        print '(a,i0,a,i0)', 'real: phase ', phase, ' iparm(12) ', iparm(12)
        failures = failures + 1
      end if
      do i = 1, n
        if (abs(x(i) - b(i) / a(i)) > 1.0d-15 * abs(b(i) / a(i))) then
          print '(a,i0,a,i0)', 'real: phase ', phase, ' wrong x at row ', i
          failures = failures + 1
        end if
      end do
    end if
  end do
  if (any(pt /= 0)) then
    print '(a)', 'real: the handle is not empty'
    failures = failures + 1
  end if
end subroutine solve_real

subroutine solve_complex(failures)
  use velmora_calls
  implicit none
  integer, intent(inout) :: failures
  integer, parameter :: nmax = 5
  integer(8) :: pt(64)
  integer(4) :: iparm(64), ia(nmax + 1), ja(nmax), perm(nmax)
  real(8) :: dparm(64)
  complex(8) :: a(nmax), b(nmax), x(nmax), want
  integer(4) :: maxfct, mnum, mtype, phase, n, nrhs, msglvl, error, solver, i, k
  integer(4) :: phases(3)

  n = nmax
  maxfct = 1
  mnum = 1
  mtype = 13
  solver = 0
  nrhs = 1
  msglvl = 0
  phases = (/ 13, 33, -1 /)
  do i = 1, n
    ia(i) = i
    ja(i) = i
    a(i) = cmplx(real(i, 8), 0.5d0 * real(i - 3, 8), kind=8)
    b(i) = cmplx(2.0d0, -real(i, 8), kind=8)
    perm(i) = 0
  end do
  ia(n + 1) = n + 1

  call velmorainit(pt, mtype, solver, iparm, dparm, error)
  if (error /= 0 .or. iparm(1) /= 1) then
    print '(a,i0)', 'complex: velmorainit error ', error
    failures = failures + 1
  end if

  do k = 1, size(phases)
    phase = phases(k)
    x = (-999.0d0, 0.0d0)
    call velmora(pt, maxfct, mnum, mtype, phase, n, a, ia, ja, perm, nrhs, iparm, &
                 msglvl, b, x, error, dparm)
    if (error /= 0) then
      print '(a,i0,a,i0)', 'complex: phase ', phase, ' error ', error
      failures = failures + 1
    end if
    if (phase > 0) then
      if (iparm(12) /= -1) then
        print '(a,i0,a,i0)', 'complex: phase ', phase, ' iparm(12) ', iparm(12)
        failures = failures + 1
      end if
      do i = 1, n
        want = b(i) / a(i)
        if (abs(x(i) - want) > 1.0d-14 * abs(want)) then
          print '(a,i0,a,i0)', 'complex: phase ', phase, ' wrong x at row ', i
          failures = failures + 1
        end if
      end do
    end if
  end do
  if (any(pt /= 0)) then
    print '(a)', 'complex: the handle is not empty'
    failures = failures + 1
  end if
end subroutine solve_complex
