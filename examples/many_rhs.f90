! many_rhs.f90 - the Fortran form of the usual job: a symmetric positive
! definite tridiagonal system (upper triangle by rows) factored once and
! solved for four right-hand sides in one call, then released.
!
!   velmora_many_rhs_fortran
program many_rhs_fortran
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
      real(8) :: a(*), b(*), x(*), dparm(64)
    end subroutine velmora
  end interface
  integer, parameter :: n = 500, nrhs = 4
  integer(8) :: pt(64)
  integer(4) :: iparm(64), ia(n + 1), ja(2 * n), perm(1), error, phase, i, k, c
  real(8) :: a(2 * n), b(n, nrhs), x(n, nrhs), dparm(64), worst, r

  k = 0
  do i = 1, n
    ia(i) = k + 1
    k = k + 1
    ja(k) = i
    a(k) = 2.0d0
    if (i < n) then
      k = k + 1
      ja(k) = i + 1
      a(k) = -1.0d0
    end if
  end do
  ia(n + 1) = k + 1
  do c = 1, nrhs
    do i = 1, n
      b(i, c) = dble(c) * sin(dble(i) / dble(n))
    end do
  end do

  call velmorainit(pt, 2, 0, iparm, dparm, error)
  phase = 13
  call velmora(pt, 1, 1, 2, phase, n, a, ia, ja, perm, nrhs, iparm, 0, b, x, error, dparm)
  if (error /= 0) then
    print '(a, i0)', 'velmora failed with error ', error
    stop 1
  end if
  ! The largest residual of the tridiagonal system, by hand.
  worst = 0.0d0
  do c = 1, nrhs
    do i = 1, n
      r = b(i, c) - 2.0d0 * x(i, c)
      if (i > 1) r = r + x(i - 1, c)
      if (i < n) r = r + x(i + 1, c)
      worst = max(worst, abs(r))
    end do
  end do
  print '(i0, a, i0, a, es9.2)', nrhs, ' right-hand sides of ', n, ' unknowns, largest residual ', &
    worst
  phase = -1
  call velmora(pt, 1, 1, 2, phase, n, a, ia, ja, perm, nrhs, iparm, 0, b, x, error, dparm)
end program many_rhs_fortran
